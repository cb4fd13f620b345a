// Names of mail names and domains, and the paths made of them.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// 1 for a valid name, else 0 (also for null). Nothing is logged.
///
/// A mail name has 1 to 245 bytes, letters, digits and ".-_&+'" of ASCII; it neither begins nor
/// ends with a dot nor holds two in a row.
int is_mailname_valid(const char* name) noexcept;

/// A domain name has 1 to 255 bytes: labels of 1 to 63 ASCII letters, digits and "-", separated by
/// single dots. No label begins with "-"; none but the last may end with it.
int is_domain_name_valid(const char* name) noexcept;

/// A valid mail name and a valid domain name around the first "@".
int is_full_mailname_valid(const char* address) noexcept;

// There are three ways to a mail name's home. They are told apart by what may be in a name, they
// lead to different directories for odd ones, and each stays as it is, for homes are where each has
// made or sought them ever since:
//
// - get_mailhome_path, for programs that are given names as people write them: the mail name must
//   be a valid one, the domain is converted to ASCII, and the whole path is lower-cased.
// - formatHome, for the quota: the same path, but the mail name may be any, as mail names that are
//   not valid have quotas, too; the caller has converted the domain.
// - homeOf, for the makers of homes and of the files in them: the names as the panel's database has
//   them, in which domains are ASCII already, lower-cased; the root stays as it is configured.

/// Write "<mail names root>/<domain in ASCII form>/<mailname>", and the same with "/.qmail", to
/// `dst` of `size` bytes, all in lower case. Return 0, or -1 after logging the reason at priority
/// 3: errno is EINVAL for a mail name that is not valid or a domain that cannot be converted or is
/// then no directory's name, ENAMETOOLONG for a path that does not fit; `dst` then holds nothing of
/// use. The mail name comes first in these two, other than elsewhere.
int get_mailhome_path(char* dst, std::size_t size, const char* mailname,
                      const char* domain) noexcept;
int get_dotqmail_path(char* dst, std::size_t size, const char* mailname,
                      const char* domain) noexcept;

namespace corvo::mail {

/// Writes "<mail names root>/<domain>/<mailname><file>" to `dst` of `size` bytes, all in lower
/// case. Whether it fits; nothing is logged.
bool formatHome(char* dst, std::size_t size, const char* domain, const char* mailname,
                const char* file = "") noexcept;

/// "<mail names root>/<domain>/<mailname>" with both names in lower case.
std::string homeOf(std::string_view domain, std::string_view mailname);

/// homeOf below the mail names root.
std::string relativeHomeOf(std::string_view domain, std::string_view mailname);

/// The mail names root with the "/" that separates it from a name.
std::string mailnamesPrefix();

/// Whether the name can be a directory's: not empty, "." or "..", without "/" and zero bytes.
bool isPathComponent(std::string_view name) noexcept;

/// Whether a path that somebody made of names is one of so many names below the mail names root.
/// Elsewhere, where no names of mail are, any path without a zero byte is taken.
bool isNamesDeep(std::string_view path, std::size_t names);

}  // namespace corvo::mail
