#include "driver/exception_report.h"

#include <cxxabi.h>

#include <ostream>
#include <typeinfo>

#include "utils/error_stream.h"
#include "utils/guards.h"
#include "utils/traceback.h"

namespace corvo {

template <>
void reportException<std::exception>(const std::exception& e) {
    // Types without linkage outside their unit have a mangled name that begins with "*".
    const char* mangled = typeid(e).name();
    if (*mangled == '*')
        ++mangled;
    int status = 0;
    const UniqueCString readable(abi::__cxa_demangle(mangled, nullptr, nullptr, &status));

    uerr << "Fatal error: " << (readable ? readable.get() : mangled) << "(" << e.what() << ")"
         << std::endl;
    if (const auto* traceback = dynamic_cast<const Traceback*>(&e))
        uerr << *traceback;
}

void reportUntypedException() {
    uerr << "UNSPECIFIED ERROR OCCURED" << std::endl;  // sic
}

}  // namespace corvo
