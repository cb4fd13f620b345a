#include "restore/numbers.h"

#include <boost/lexical_cast/try_lexical_convert.hpp>
#include <ostream>

#include "utils/error_stream.h"

namespace corvo::mail::restore {

template <typename Number>
std::optional<Number> numberOrWarn(const std::string& text, const char* before, const char* after) {
    Number number = 0;
    if (boost::conversion::try_lexical_convert(text, number))
        return number;
    uerr << before << text << after << std::endl;
    return std::nullopt;
}

template std::optional<short> numberOrWarn(const std::string&, const char*, const char*);
template std::optional<int> numberOrWarn(const std::string&, const char*, const char*);
template std::optional<long long> numberOrWarn(const std::string&, const char*, const char*);

}  // namespace corvo::mail::restore
