// The text of a maildirsize file: reading against strtoll, and writing against reading.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "fuzz/support.h"
#include "mail/quota/maildirsize.h"

namespace {

using corvo::fuzz::require;

constexpr long long LARGEST = std::numeric_limits<long long>::max();
constexpr long long SMALLEST = std::numeric_limits<long long>::min();
constexpr long long UNTOUCHED = -4711;

// Two numbers, or the errno of a failure.
struct Numbers {
    int error = 0;
    long long first = UNTOUCHED;
    long long second = UNTOUCHED;

    bool operator==(const Numbers&) const = default;
};

// A text from which numbers are taken one after another.
class Reader {
public:
    explicit Reader(std::string_view text) : text_(text), rest_(text_.c_str()) {}

    // 0, ERANGE, or EINVAL where no number stands.
    int take(long long& number) {
        char* end = nullptr;
        errno = 0;
        number = std::strtoll(rest_, &end, 10);
        const int error = end == rest_ ? EINVAL : errno;
        rest_ = end;
        return error;
    }

    std::string_view rest() const { return {rest_, text_.c_str() + text_.size()}; }
    void skip(std::size_t count) { rest_ += count; }

private:
    std::string text_;
    const char* rest_;
};

Numbers expectedHeader(std::string_view text) {
    Reader reader(text);
    Numbers numbers;
    const int error = reader.take(numbers.first);
    if (error == EINVAL)
        return {0, 0, 0};
    if (error != 0)
        return {.error = error};
    numbers.second = 0;
    if (reader.rest() == "S")
        return numbers;
    if (reader.rest().size() < 2 || reader.rest()[1] != ',')
        return {.error = EINVAL};
    reader.skip(2);
    if (const int countError = reader.take(numbers.second); countError != 0)
        return {.error = countError};
    return reader.rest() == "C" ? numbers : Numbers{.error = EINVAL};
}

Numbers expectedUsageLine(std::string_view text) {
    Reader reader(text);
    Numbers numbers;
    if (const int error = reader.take(numbers.first); error != 0)
        return {.error = error};
    if (reader.rest().empty() ||
        std::isspace(static_cast<unsigned char>(reader.rest().front())) == 0)
        return {.error = EINVAL};
    if (const int error = reader.take(numbers.second); error != 0)
        return {.error = error};
    return reader.rest().empty() ? numbers : Numbers{.error = EINVAL};
}

long long sum(long long a, long long b) {
    if (b > 0 && a > LARGEST - b)
        return LARGEST;
    if (b < 0 && a < SMALLEST - b)
        return SMALLEST;
    return a + b;
}

Numbers expectedUsage(std::string_view text) {
    if (!text.empty() && text.find('\n') == std::string_view::npos)
        return {.error = EINVAL};
    Numbers sums{0, 0, 0};
    while (!text.empty()) {
        if (text.find('\n') == std::string_view::npos)
            return {.error = EINVAL};
        const Numbers line = expectedUsageLine(corvo::fuzz::takeLine(text));
        if (line.error != 0)
            return {.error = line.error};
        sums = {0, sum(sums.first, line.first), sum(sums.second, line.second)};
    }
    return sums.first < 0 || sums.second < 0 ? Numbers{.error = EINVAL} : sums;
}

template <typename Parser>
Numbers parse(Parser parser) {
    Numbers numbers;
    errno = 0;
    if (parser(&numbers.first, &numbers.second) == 0)
        numbers.error = errno;
    return numbers;
}

Numbers parseHeader(std::string_view text) {
    return parse([=](auto* bytes, auto* count) { return parse_header_string(text, bytes, count); });
}

Numbers parseUsage(std::string_view text) {
    return parse([=](auto* bytes, auto* count) { return parse_usage_lines(text, bytes, count); });
}

void checkLine(std::string_view line) {
    const auto common = [line](int header) {
        return parse([=](auto* first, auto* second) {
            return parse_string_common(line, first, second, header);
        });
    };
    const Numbers header = expectedHeader(line);
    require(common(1) == header, "a header is read as it stands, or leaves the limits alone");
    require(common(0) == expectedUsageLine(line), "a usage line is read as it stands");

    const int error = header.first < 0 && header.error == 0 ? EINVAL : header.error;
    require(parseHeader(line) == (error == 0 ? header : Numbers{error, LARGEST, LARGEST}),
            "limits are those of the header, or the largest");
}

// Writes four numbers, and reads them where they are such as the program writes.
void checkWriting(const long (&numbers)[4]) {
    constexpr long MOST_MESSAGES = 99'999'999'999;  // that leave a blank in their column
    const auto [byteLimit, countLimit, bytes, messages] = numbers;
    char content[MAILDIRSIZE_CONTENT_MAX];
    const std::size_t length = format_maildirsize(content, byteLimit, countLimit, bytes, messages);
    require(length < sizeof content && length == std::strlen(content), "the text fits");
    std::string_view text(content, length);
    const Numbers limits = parseHeader(corvo::fuzz::takeLine(text));
    require(byteLimit < 0 || limits == Numbers{0, byteLimit, countLimit}, "limits are kept");
    if (bytes >= 0 && messages >= 0 && messages <= MOST_MESSAGES)
        require(parseUsage(text) == Numbers{0, bytes, messages}, "the usage is kept");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text = corvo::fuzz::textOf(data, size);
    long numbers[4] = {};
    std::memcpy(numbers, data, std::min(size, sizeof numbers));
    checkWriting(numbers);

    checkLine(corvo::fuzz::takeLine(text));
    const Numbers usage = expectedUsage(text);
    require(parseUsage(text) == usage, "usage lines are summed");
    if (usage.error == 0)
        checkWriting({usage.first, usage.second, usage.first, usage.second});
    return 0;
}
