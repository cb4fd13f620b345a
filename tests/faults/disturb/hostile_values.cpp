#include "tests/faults/disturb/hostile_values.h"

#include <cstdlib>
#include <utility>

namespace corvo::faults {

namespace {

using namespace std::string_literals;

constexpr std::size_t KIB = 1024;
constexpr int BYTES = 256;

// Each is a name that leads elsewhere, or a text that somebody on its way could take for more than
// a text.
const std::vector<std::string> TEXTS = {
    // to a file system
    "", ".", "..", "...", "/", "//", "../..", "../../etc", "../../etc/passwd", "/etc/passwd", "a/b",
    "a/../..", "a/", "/a", "./a", "..a", "a..", ".a", "-", "--all", "-rf", "~", "~root", "*", "?",
    "[a-z]", ".qmail", ".qmail.tmp", "Maildir", "maildirsize", "tmp", "new", "cur", "@attachments",
    ".default_delivery", ".default_delivery.tmp", ".CorvoSaved.1", "lost+found",
    // to C
    "\0"s, "a\0"s, "\0a"s, "a\0b"s, "../\0a"s, "..\0"s, "a\0/../../etc"s, "%s%s%s%s%n", "%00",
    "%2e%2e%2f", "%999999999d", "\\", "\\0", "\\..\\..",
    // to a shell or a delivery agent
    "$(touch /canary)", "`touch /canary`", "|touch /canary", "; touch /canary;", "& touch /canary",
    "a b", " ", "  a", "a  ", "\t", "#", "!", "'", "\"", "''", "\"\"",
    // to a reader of lines
    "\n", "a\nb", "\r\n", "a\r\nb", "\na", "a\n", "a\n| touch /canary\n", "a\n&b@example.org",
    // to SQL
    "';", "' OR '1'='1", "'; DROP TABLE domains; --", "\\' OR 1=1 --", "\" OR \"\"=\"", "`", "a`b",
    "NULL", "%", "_", "'/*", "*/", "0x00", "@@version",
    // to a terminal
    "\033[2J", "\033]0;title\007", "\b\b\b", "\x7f", "\2332J", "\342\200\256moc.elpmaxe",
    // to a decoder of UTF-8
    "\xff", "\xfe\xff", "\x80", "\xc0\x80", "\xc0\xae\xc0\xae/", "\xc0\xaf", "\xe0\x80\xaf",
    "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80", "a\xc3", "\xe2\x82",
    "\357\273\277a", "\xf0\x9f\x93\xa7",
    // to IDNA, which makes dots and slashes of them
    "\xe3\x80\x82", "\xe3\x80\x82\xe3\x80\x82", "\xef\xbc\x8e\xef\xbc\x8e", "\xef\xbd\xa1",
    "\xe2\x80\xa4", "\xe2\x80\xa5", "\xe2\x80\xa6", "\xe2\x80\xa5\xef\xbc\x8f\xe2\x80\xa5",
    "\xef\xbc\x8f", "\357\274\217etc", "\xe2\x84\x80", "\xe2\x84\x85", "a\357\274\217b",
    "\xef\xbc\xbc", "\xc2\xad", "\xe2\x80\x8b", "b\303\274cher", "B\303\234CHER", "stra\303\237e",
    "xn--", "xn--a", "xn--bcher-kva", "XN--BCHER-KVA", "xn--\xc3\xbc", "xn--ls8h", "xn---",
    "xn--99999999", "\xc4\xb0", "\xe2\x84\xaa"};

const std::vector<std::string> NUMBERS = {
    // small, and what surrounds a number
    "", "0", "-0", "+0", "1", "-1", "-2", "007", "+5", "1 ", " 1", "1\n", "\n1", "1\0"s, "\0001"s,
    // around the limits of 16, 32 and 64 bits
    "32767", "32768", "2147483646", "2147483647", "2147483648", "-2147483648", "-2147483649",
    "4294967295", "4294967296", "9223372036854775806", "9223372036854775807", "9223372036854775808",
    "-9223372036854775807", "-9223372036854775808", "-9223372036854775809", "18446744073709551615",
    "18446744073709551616", "99999999999999999999999999999999",
    // in other notations, or none
    "1e9", "1E9", "1e-9", "0x10", "1.0", "1,000", "1.000", "1B", "10M", "--1", "+-1", "-", "+",
    "NaN", "inf", "-inf", "true", "NULL", "\xd9\xa3", "\xef\xbc\x91", "1\xff"};

const std::vector<std::string> WORDS = {
    // nearly right
    "", "0", "1", "true", "TRUE", "True", "false", "true ", " true", "true\0"s, "true\n", "tru",
    "truetrue", "yes",
    // right in other columns
    "mail", "MAIL", "domain", "mbox_quota", "limitsId", "nonexist_mail",
    "reject_mail_when_overquota", "' OR '1'='1", "\xff", "\0"s};

// What follows "... dom_id=" in a statement. None that would keep the server busy for long.
const std::vector<std::string> KEYS = {
    // numbers
    "", "0", "-1", "4294967295", "4294967296", "18446744073709551616", "1e9", "0x10", "1.5", "NULL",
    // pieces of a statement
    "'", "\"", "`", "\\", "--", "-- ", "/*", "#", "; DROP TABLE mail", "1; DELETE FROM mail",
    "1 OR 1=1 LIMIT 3", "'1' OR '1'='1' LIMIT 3", "(SELECT 1)", "(SELECT id FROM mail LIMIT 2)",
    "0 UNION SELECT '1'", "0 UNION SELECT 1,'../../etc','true','true','true','1e9'",
    "no_such_column", "1 INTO OUTFILE 'canary'", "1 PROCEDURE ANALYSE()", "@a:=1", "1\0"s, "\0"s,
    "\n", "1\n", "\xff", "9/0", "9223372036854775807+1"};

const std::vector<std::string>& textsFor(Meaning meaning) {
    switch (meaning) {
        case Meaning::number:
            return NUMBERS;
        case Meaning::word:
            return WORDS;
        case Meaning::key:
            return KEYS;
        default:
            return TEXTS;
    }
}

bool isFreeText(Meaning meaning) {
    return &textsFor(meaning) == &TEXTS;
}

// A text as the column might really hold it, around the hostile one.
std::string dressed(Meaning meaning, const std::string& text) {
    switch (meaning) {
        case Meaning::domain:
            return text + ".hostile.example";
        case Meaning::name:
            return "info" + text;
        case Meaning::address:
            return "somebody@" + text + "example.org";
        default:
            return text;
    }
}

// Compared with a number, a text is the number that it begins with. A key that begins as an honest
// one would make its rows an honest domain's.
std::string asStrangeKey(std::string text) {
    constexpr double HONEST_KEYS = 1'000'000;
    const double number = std::strtod(text.c_str(), nullptr);
    return number >= 1 && number < HONEST_KEYS ? "9000000" + text : text;
}

Cell valueFor(Meaning meaning, std::string text) {
    return meaning == Meaning::key ? asStrangeKey(std::move(text)) : std::move(text);
}

void addEveryByte(Meaning meaning, std::vector<Cell>& values) {
    for (int byte = 0; byte < BYTES; ++byte)
        values.emplace_back(dressed(meaning, std::string(1, static_cast<char>(byte))));
}

// Around the limits of a label, a mail name, a file name, a domain name and a path, and 64 KiB.
void addLengths(std::vector<Cell>& values) {
    for (const std::size_t length :
         {63U, 64U, 245U, 246U, 247U, 254U, 255U, 256U, 4095U, 4096U, 4097U, 65535U, 65536U})
        values.emplace_back(std::string(length, 'a'));
    std::string labels;
    std::string slashes;
    std::string wide;
    while (labels.size() < 64 * KIB) {
        labels += "label.";
        slashes += "../";
        wide += "\xc3\xbc";
    }
    for (const std::size_t length : {252U, 4092U, 65536U})
        for (const std::string& text : {labels, slashes, wide})
            values.emplace_back(text.substr(0, length));
}

std::string pick(const std::vector<std::string>& texts, std::mt19937_64& random) {
    return texts[below(texts.size(), random)];
}

std::string randomBytes(std::mt19937_64& random) {
    std::string text;
    for (std::size_t left = below(48, random); left > 0; --left)
        text += static_cast<char>(below(BYTES, random));
    return text;
}

// One text within another.
std::string mixed(Meaning meaning, std::mt19937_64& random) {
    std::string text = dressed(meaning, pick(textsFor(meaning), random));
    const std::string piece = pick(isFreeText(meaning) ? TEXTS : textsFor(meaning), random);
    return text.insert(below(text.size() + 1, random), piece);
}

std::string withOneByteChanged(std::string text, std::mt19937_64& random) {
    if (!text.empty())
        text[below(text.size(), random)] = static_cast<char>(below(BYTES, random));
    return text;
}

}  // namespace

std::vector<Cell> knownValues(Meaning meaning) {
    std::vector<Cell> values = {std::nullopt};
    for (const std::string& text : textsFor(meaning)) {
        values.push_back(valueFor(meaning, text));
        if (isFreeText(meaning))
            values.emplace_back(dressed(meaning, text));
    }
    if (isFreeText(meaning)) {
        addEveryByte(meaning, values);
        addLengths(values);
    } else {
        values.emplace_back(std::string(64 * KIB, '1'));
    }
    return values;
}

Cell randomValue(Meaning meaning, std::mt19937_64& random) {
    switch (below(4, random)) {
        case 0:
            return valueFor(meaning, randomBytes(random));
        case 1:
            return valueFor(meaning, mixed(meaning, random));
        case 2:
            return valueFor(meaning, withOneByteChanged(mixed(meaning, random), random));
        default:
            return valueFor(
                meaning, pick(TEXTS, random) + dressed(meaning, pick(textsFor(meaning), random)));
    }
}

std::size_t below(std::size_t limit, std::mt19937_64& random) {
    return static_cast<std::size_t>(random() % limit);
}

}  // namespace corvo::faults
