#include "restore/numbers.h"

#include <boost/lexical_cast/try_lexical_convert.hpp>
#include <ostream>

#include "restore/reports.h"

namespace corvo::mail::restore {

template <typename Number>
std::optional<Number> numberIn(const std::string& text) {
    Number number = 0;
    if (boost::conversion::try_lexical_convert(text, number))
        return number;
    return std::nullopt;
}

template std::optional<short> numberIn(const std::string&);
template std::optional<int> numberIn(const std::string&);
template std::optional<long long> numberIn(const std::string&);

template <typename Number>
std::optional<Number> numberOrWarn(const std::string& text, const char* what, Quoted quoted) {
    const std::optional<Number> number = numberIn<Number>(text);
    if (number)
        return number;
    const char* const quote = quoted == Quoted::yes ? "'" : "";
    warning() << "Warning: invalid " << what << ' ' << quote << text << quote
              << " stored in Corvo DB, ignored" << std::endl;
    return std::nullopt;
}

template std::optional<short> numberOrWarn(const std::string&, const char*, Quoted);
template std::optional<int> numberOrWarn(const std::string&, const char*, Quoted);
template std::optional<long long> numberOrWarn(const std::string&, const char*, Quoted);

}  // namespace corvo::mail::restore
