// What is logged of delivery files, each text in one place.
//
// Each function logs that something failed whose reason is in errno, keeps errno, and returns -1.

#pragma once

namespace corvo::mail {

int reportUnopened(const char* path) noexcept;
int reportUnwritten(const char* path) noexcept;

/// The same of the new file that is to take the place of the one at `path`.
int reportNewUnopened(const char* path) noexcept;
int reportNewUnwritten(const char* path) noexcept;

/// The known delivery lines could not be removed. Has priority 4.
int reportNotCleared(const char* path) noexcept;

/// The delivery line could not be added. Follows the report of the reason.
int reportNotDelivering(const char* path) noexcept;

}  // namespace corvo::mail
