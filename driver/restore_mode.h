// What a run restores.

#pragma once

enum RestoreMode : int {
    RestoreModeAll = 0,           // everything
    RestoreModeHandlersOnly = 1,  // only the mail handler that rejects mail for full mailboxes
};
