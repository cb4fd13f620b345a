// What a delivery file is to hold where the new contents cannot be had in full.

#pragma once

#include <optional>
#include <string>

#include "tests/equality/description.h"

namespace corvo::equality {

/// The text that the delivery file of a home ends with, from the one before a run; none unless an
/// old file has to stay at one of the rows that come to the home. One that is too large to be read
/// does not.
std::optional<std::string> keptDelivery(const std::string& before, const std::string& home,
                                        const Description& description, const Means& means);

}  // namespace corvo::equality
