#include "utils/size_units.h"

#include <cstring>

const SizeUnit SizeUnitsTextConversionTable[5] = {
    {"B", 1ULL},           {"KB", 1024ULL},          {"MB", 1048576ULL},
    {"GB", 1073741824ULL}, {"TB", 1099511627776ULL},
};

unsigned long long get_size_unit(const char* name) noexcept {
    for (const SizeUnit& unit : SizeUnitsTextConversionTable) {
        if (std::strcmp(unit.name, name) == 0)
            return unit.factor;
    }
    return 0;
}

int is_valid_size_unit(const char* name) noexcept {
    return get_size_unit(name) != 0 ? 1 : 0;
}

unsigned long long get_value_in_bytes(unsigned long long value, const char* unit) noexcept {
    return value * get_size_unit(unit);
}
