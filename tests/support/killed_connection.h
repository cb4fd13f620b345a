// Connections that the server ends, and how the installed client library speaks of them.

#pragma once

#include <string>

#include "tests/support/panel.h"

namespace corvo::test {

/// Has the server end the connection with this id, and waits until it has.
void killConnection(PanelDatabase& panel, const std::string& id);

/// The first statement after the end fails with this: "MySQL error <n>: <text>".
std::string errorOfKilledConnection(PanelDatabase& panel);

}  // namespace corvo::test
