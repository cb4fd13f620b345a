#include "driver/run.h"

#include <iostream>
#include <map>
#include <optional>
#include <string>

#include "driver/mailbox_restoration.h"
#include "driver/restore_mode.h"
#include "restore/walker.h"

namespace {

std::optional<RestoreMode> modeFor(int argc, char** argv) {
    const std::map<std::string, RestoreMode> modes = {
        {"--fast", RestoreModeHandlersOnly},
        {"--handlers-only", RestoreModeHandlersOnly},
        {"--all", RestoreModeAll},
    };
    if (argc <= 1)
        return RestoreModeAll;
    const auto mode = modes.find(argv[1]);
    if (mode == modes.end())
        return std::nullopt;
    return mode->second;
}

}  // namespace

int do_main(int argc, char** argv) {
    const std::optional<RestoreMode> mode = modeFor(argc, argv);
    if (!mode) {
        std::cerr << "Usage: " << argv[0] << " [--fast | --handlers-only | --all]" << std::endl;
        return 1;
    }
    corvo::MailboxRestorationAdaptor adaptor(*mode);
    corvo::mail::restore::walkMailServerEntities(adaptor.callbacks());
    adaptor.finish();
    return 0;
}
