#include "tests/faults/judge/tree_comparison.h"

namespace corvo::faults {

const Entry* entryAt(const Tree& tree, const std::string& path) {
    const auto entry = tree.find(path);
    return entry == tree.end() ? nullptr : &entry->second;
}

void compare(const Tree& left, const Tree& right, const Visit& visit) {
    for (const auto& [path, entry] : left)
        visit(path, &entry, entryAt(right, path));
    for (const auto& [path, entry] : right)
        if (!left.contains(path))
            visit(path, nullptr, &entry);
}

bool isUntouched(const Entry* left, const Entry* right) {
    if (left == nullptr || right == nullptr)
        return left == right;
    return *left == *right;
}

bool isDifferent(const Entry* left, const Entry* right) {
    if (left == nullptr || right == nullptr)
        return left != right;
    return left->mode != right->mode || left->uid != right->uid || left->gid != right->gid ||
           left->content != right->content;
}

bool isChanged(const Entry* left, const Entry* right) {
    return isDifferent(left, right) || (left != nullptr && left->modified != right->modified);
}

std::vector<std::string> pathsThat(bool (*differ)(const Entry*, const Entry*), const Tree& left,
                                   const Tree& right) {
    std::vector<std::string> paths;
    compare(left, right, [&](const std::string& path, const Entry* one, const Entry* other) {
        if (differ(one, other))
            paths.push_back(path);
    });
    return paths;
}

}  // namespace corvo::faults
