#include "mail/handlers/mail_handler.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "utils/guards.h"
#include "utils/log.h"

namespace {

struct RecordDeleter {
    void operator()(mh_data* record) const noexcept {
        const corvo::ErrnoGuard keepErrno;
        mh_data_free(record);
    }
};

using UniqueRecord = std::unique_ptr<mh_data, RecordDeleter>;

template <typename T>
T* allocate() noexcept {
    return static_cast<T*>(std::malloc(sizeof(T)));
}

void logSystemError() noexcept {
    corvo::Log().line(LOG_ERR, "System error: %s", std::strerror(errno));
}

// False without memory; a null text is copied as null.
bool duplicate(const char* text, char*& copy) noexcept {
    copy = text == nullptr ? nullptr : ::strdup(text);
    return copy != nullptr || text == nullptr;
}

}  // namespace

void mh_data_init_ex(mh_data* record) noexcept {
    if (record != nullptr)
        *record = {.priority = 0,
                   .type = MH_DEFAULT_TYPE,
                   .queue = MH_DEFAULT_QUEUE,
                   .name = nullptr,
                   .address = nullptr,
                   .executable = nullptr,
                   .context = nullptr,
                   .protect_on_restore = false,
                   .enabled = false};
}

mh_data* mh_data_init() noexcept {
    auto* const record = allocate<mh_data>();
    if (record == nullptr)
        logSystemError();
    mh_data_init_ex(record);
    return record;
}

mh_data* mh_data_clone(const mh_data* record) noexcept {
    if (record == nullptr)
        return nullptr;
    UniqueRecord copy(allocate<mh_data>());
    if (!copy)
        return nullptr;
    *copy = *record;
    copy->name = copy->address = copy->executable = copy->context = nullptr;
    const bool copied = duplicate(record->name, copy->name) &&
                        duplicate(record->address, copy->address) &&
                        duplicate(record->executable, copy->executable) &&
                        duplicate(record->context, copy->context);
    return copied ? copy.release() : nullptr;
}

int mh_data_set_address(mh_data* record, const char* address) noexcept {
    char* copy = nullptr;
    if (!duplicate(address, copy)) {
        logSystemError();
        return -1;
    }
    std::free(record->address);
    record->address = copy;
    return 0;
}

void mh_data_free_ex(mh_data* record) noexcept {
    if (record == nullptr)
        return;
    for (char** string : {&record->name, &record->address, &record->executable, &record->context}) {
        std::free(*string);
        *string = nullptr;
    }
}

void mh_data_free(mh_data* record) noexcept {
    mh_data_free_ex(record);
    std::free(record);
}

void mh_list_init(mh_list* list) noexcept {
    list->first = nullptr;
}

int mh_list_add(mh_list* list, const mh_data* record) noexcept {
    corvo::UniqueMalloc<mh_list_node> node(allocate<mh_list_node>());
    if (!node) {
        logSystemError();
        return -1;
    }
    node->record = mh_data_clone(record);
    if (node->record == nullptr) {
        corvo::Log().line(LOG_ERR, "Unable to clone handlers data record");
        return -1;
    }
    node->next = list->first;
    node->link = &list->first;
    if (node->next != nullptr)
        node->next->link = &node->next;
    list->first = node.release();
    return 0;
}

void mh_list_free(mh_list* list) noexcept {
    while (list->first != nullptr) {
        mh_list_node* const node = list->first;
        list->first = node->next;
        mh_data_free(node->record);
        std::free(node);
    }
}
