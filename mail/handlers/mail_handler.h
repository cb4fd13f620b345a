// A mail handler: an external filter that the mail server runs for messages which pass a queue; and
// lists of them.
//
// Functions never throw. Strings of a record come from malloc and belong to it, except where a
// caller lends its own to a call that says so.

#pragma once

inline constexpr int MH_GLOBAL_HANDLER_TYPE = 4;
inline constexpr int MH_DEFAULT_TYPE = 5;
inline constexpr int MH_DEFAULT_QUEUE = 5;

struct mh_data {
    int priority;      // higher runs first
    int type;          // of the hook
    int queue;         // the mail server's number of it
    char* name;        // owned
    char* address;     // of the recipient; owned
    char* executable;  // owned
    char* context;     // null is "none"; owned
    bool protect_on_restore;
    bool enabled;
};

/// Sets the defaults: type and queue 5, nothing else. The strings that were there are not freed.
/// Null is allowed.
void mh_data_init_ex(mh_data* record) noexcept;

/// A new record with the defaults; free with mh_data_free. Null without memory, which is logged.
mh_data* mh_data_init() noexcept;

/// A new record with its own copies of the strings; free with mh_data_free. Null for null and,
/// silently, without memory.
mh_data* mh_data_clone(const mh_data* record) noexcept;

/// Gives the record its own copy of `address` in place of the old one. Returns 0, or -1 without
/// memory, which is logged.
int mh_data_set_address(mh_data* record, const char* address) noexcept;

/// Frees the strings and sets them to null. Null is allowed.
void mh_data_free_ex(mh_data* record) noexcept;

/// Frees the strings and the record. Null is allowed.
void mh_data_free(mh_data* record) noexcept;

struct mh_list_node {
    mh_data* record;  // owned
    mh_list_node* next;
    mh_list_node** link;  // the pointer that points here
};

struct mh_list {
    mh_list_node* first;
};

/// Makes an empty list; frees nothing.
void mh_list_init(mh_list* list) noexcept;

/// Puts a copy of the record in front. Returns 0, or -1 without memory, which is logged.
int mh_list_add(mh_list* list, const mh_data* record) noexcept;

/// Frees all nodes with their records and leaves an empty list.
void mh_list_free(mh_list* list) noexcept;
