// Last words about an exception that ends the run.

#pragma once

#include <exception>

namespace corvo {

/// Writes "Fatal error: <dynamic type>(<what>)" to corvo::uerr, then the traceback of an exception
/// that carries one. That it is a template with one specialisation is part of the interface:
/// callers name the type.
template <typename Exception>
void reportException(const Exception& e);

template <>
void reportException<std::exception>(const std::exception& e);

/// Writes "UNSPECIFIED ERROR OCCURED" to corvo::uerr.
void reportUntypedException();

}  // namespace corvo
