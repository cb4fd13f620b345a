// How the installed client library speaks of a connection that the server has ended.

#pragma once

#include <string>

#include "tests/support/panel.h"

namespace corvo::test {

/// The first statement after the end fails with this: "MySQL error <n>: <text>".
std::string errorOfKilledConnection(PanelDatabase& panel);

}  // namespace corvo::test
