// Files and trees as tests look at them. All throw std::system_error when they cannot do their
// work.

#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace corvo::test {

bool exists(const std::string& path);  // a dangling link exists
std::string contentsOf(const std::string& path);
/// Permission bits with the special ones, four octal digits: "0750". Of a link: of the link.
std::string modeOf(const std::string& path);
/// "uid:gid" in decimal. Of a link: of the link.
std::string ownerOf(const std::string& path);
ino_t inodeOf(const std::string& path);

/// "uid:gid" of popuser.
std::string popuser();

/// Creates or replaces a file; missing parents are made (0755).
void writeFile(const std::string& path, const std::string& contents);
void writeFile(const std::string& path, const std::string& contents, uid_t uid, gid_t gid,
               mode_t mode);
/// Not what a link points at.
void chownToPopuser(const std::string& path);
/// Makes a directory and its missing parents (0755).
void makeDirectory(const std::string& path);
void makeLink(const std::string& target, const std::string& path, uid_t owner = 0);

/// The names in a directory, sorted.
std::vector<std::string> namesIn(const std::string& path);

/// A line for each entry below `path`, sorted: type letter (as ls has it), mode, owner, path
/// relative to `path`, for a link " -> target", for a file its size.
std::string listTree(const std::string& path);

/// As listTree, with contents and inode of every file: equal texts are equal trees.
std::string fingerprint(const std::string& path);

/// Open descriptors of this process.
int openDescriptors();
mode_t currentUmask();

}  // namespace corvo::test
