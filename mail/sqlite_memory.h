// SQLite's memory, from pools.
//
// A connection makes some 250 small blocks, most of them to read the schema and to register
// functions, and frees them when it is closed; a restore opens one per mail name. malloc keeps a
// few blocks of a size at hand, merges all others and splits them again for the next connection.
// Pools keep them as they are. In exchange nobody notices when a freed or overrun block is misused,
// where malloc might have ended the process.

#pragma once

namespace corvo::mail {

/// Has SQLite take blocks of up to 1 KiB from pools and larger ones from malloc from now on, for
/// one thread. The pools never shrink: they hold what the largest use so far has needed. False when
/// SQLite was in use already, and keeps the memory it has. Later calls change nothing. Logs
/// nothing.
bool poolSqliteMemory() noexcept;

}  // namespace corvo::mail
