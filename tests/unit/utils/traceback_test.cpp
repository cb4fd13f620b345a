#include "utils/traceback.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>

// The C library's view of the stack, in front of its own: it shows what a test tells it.
namespace {

struct Pretence {
    bool noFrames = false;         // the stack cannot be walked
    bool noSymbols = false;        // no memory for them
    const char* symbol = nullptr;  // the line of every frame
};
Pretence pretence;

template <typename Function>
Function* original(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

int backtrace(void** frames, int size) {
    return pretence.noFrames ? -1 : original(backtrace, "backtrace")(frames, size);
}

char** backtrace_symbols(void* const* frames, int count) noexcept {
    if (pretence.noSymbols)
        return nullptr;
    char** lines = original(backtrace_symbols, "backtrace_symbols")(frames, count);
    for (int i = 0; pretence.symbol != nullptr && i < count; ++i)
        lines[i] = const_cast<char*>(pretence.symbol);
    return lines;
}

namespace corvo::test {
namespace {

std::string textOf(const Traceback& traceback) {
    std::ostringstream stream;
    stream << traceback;
    return stream.str();
}

auto linesOf(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

/// Takes a traceback where the C++ library, whose symbols are known, calls it.
class TracingBuffer : public std::streambuf {
public:
    std::unique_ptr<Traceback> traceback;

protected:
    int_type overflow(int_type c) override {
        traceback = std::make_unique<Traceback>();
        return c;
    }
};

Traceback insideOstreamPut() {
    TracingBuffer buffer;
    std::ostream(&buffer).put('x');
    return *buffer.traceback;
}

Traceback atDepth(int depth) {
    if (depth == 0)
        return Traceback();
    Traceback deeper = atDepth(depth - 1);
    return deeper;
}

class TracebackTest : public ::testing::Test {
protected:
    void TearDown() override { pretence = {}; }
};

TEST_F(TracebackTest, PrintsALineForEachFrame) {
    const std::string text = textOf(Traceback());
    EXPECT_TRUE(text.starts_with("Traceback:\n\t")) << text;
    EXPECT_GT(linesOf(text), 3) << text;
    EXPECT_TRUE(text.ends_with("]\n")) << text;
}

TEST_F(TracebackTest, HoldsElevenFramesAtMost) {
    EXPECT_EQ(linesOf(textOf(atDepth(20))), 1 + 11);
}

TEST_F(TracebackTest, LeavesOutTheInnermostFrames) {
    const auto all = linesOf(textOf(Traceback(0)));
    EXPECT_EQ(linesOf(textOf(Traceback(2))), all - 2);
}

TEST_F(TracebackTest, PrintsTheHeaderAloneWhenItSkipsEverything) {
    EXPECT_EQ(textOf(Traceback(12)), "Traceback addresses:\n");
    EXPECT_EQ(textOf(Traceback(static_cast<std::size_t>(-1))), "Traceback addresses:\n");
}

TEST_F(TracebackTest, DemanglesNamesAndKeepsTheRestOfTheLine) {
    const std::string text = textOf(insideOstreamPut());
    const std::size_t name = text.find("(std::ostream::put(char)+0x");
    ASSERT_NE(name, std::string::npos) << text;
    const std::string line = text.substr(0, text.find('\n', name)).substr(text.rfind('\t', name));
    EXPECT_TRUE(line.find("libstdc++.so") < line.find('(')) << line;
    EXPECT_TRUE(line.find(") [0x") != std::string::npos && line.ends_with("]")) << line;
}

TEST_F(TracebackTest, DemanglesWhatStandsBetweenParenthesisAndPlus) {
    const std::string parameters(100, 'i');
    std::string types = "int";
    for (std::size_t i = 1; i < parameters.size(); ++i)
        types += ", int";
    const struct {
        std::string symbol;
        std::string line;
    } cases[] = {
        {"/lib/x.so(_ZN1a1bEi+0x1f) [0x7f]", "/lib/x.so(a::b(int)+0x1f) [0x7f]"},
        {"/c++/x.so(_ZN1a1bEv+0x1f) [0x7f]", "/c++/x.so(a::b()+0x1f) [0x7f]"},
        {"x(_Z1f" + parameters + "+0x1) [0x7f]", "x(f(" + types + ")+0x1) [0x7f]"},
        {"x(_Z1gv+0x1+0x2) [0x7f]", "x(g()+0x1+0x2) [0x7f]"},
        {"x(main+0x1f) [0x7f]", "x(main+0x1f) [0x7f]"},
        {"x(+0x1f) [0x7f]", "x(+0x1f) [0x7f]"},
        {"x(_ZN1a1bEi) [0x7f]", "x(_ZN1a1bEi) [0x7f]"},
        {"x+1 [0x7f]", "x+1 [0x7f]"},
        {"[0x7f]", "[0x7f]"},
    };
    for (const auto& [symbol, line] : cases) {
        pretence.symbol = symbol.c_str();
        std::string expected = "Traceback:\n";
        for (int frame = 0; frame < 11; ++frame)
            expected += "\t" + line + "\n";
        EXPECT_EQ(textOf(atDepth(20)), expected);
    }
}

TEST_F(TracebackTest, PrintsTheHeaderAloneWhenTheStackCannotBeWalked) {
    pretence.noFrames = true;
    EXPECT_EQ(textOf(Traceback()), "Traceback addresses:\n");
}

TEST_F(TracebackTest, PrintsTheSameAgain) {
    const Traceback traceback;
    const std::string first = textOf(traceback);
    EXPECT_EQ(textOf(traceback), first);
}

TEST_F(TracebackTest, PrintsTheSameAfterCopying) {
    const Traceback original = insideOstreamPut();
    const std::string text = textOf(original);
    const auto copy = std::make_unique<Traceback>(original);
    Traceback assigned(12);
    EXPECT_EQ(textOf(assigned), "Traceback addresses:\n");
    assigned = original;
    EXPECT_EQ(textOf(*copy), text);
    EXPECT_EQ(textOf(assigned), text);
}

TEST_F(TracebackTest, SurvivesAssignmentToItself) {
    Traceback traceback;
    const std::string text = textOf(traceback);
    const Traceback& same = traceback;
    traceback = same;
    EXPECT_EQ(textOf(traceback), text);
}

TEST_F(TracebackTest, PrintsAddressesWhenSymbolsCannotBeHad) {
    void* stack[16];
    const int depth = backtrace(stack, 16);
    pretence.noSymbols = true;

    const std::string text = textOf(atDepth(0));

    std::ostringstream outerFrames;  // beyond those in which the two calls differ
    for (int i = 4; i < std::min(depth, 8); ++i)
        outerFrames << "\t" << stack[i] << "\n";
    EXPECT_TRUE(text.starts_with("Traceback addresses:\n\t0x")) << text;
    EXPECT_NE(text.find(outerFrames.str()), std::string::npos) << text;
}

TEST_F(TracebackTest, AsksAgainForSymbolsThatItCouldNotHave) {
    const Traceback traceback;
    pretence.noSymbols = true;
    EXPECT_TRUE(textOf(traceback).starts_with("Traceback addresses:\n\t"));
    pretence.noSymbols = false;
    EXPECT_TRUE(textOf(traceback).starts_with("Traceback:\n\t"));
}

}  // namespace
}  // namespace corvo::test
