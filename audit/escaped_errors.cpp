#include "audit/escaped_errors.h"

#include <iostream>

#include "audit/progress.h"
#include "audit/text.h"

namespace corvo::audit {

EscapedErrors::EscapedErrors() : errors_(std::cerr.rdbuf()) {
    std::cerr.rdbuf(this);
}

EscapedErrors::~EscapedErrors() {
    std::cerr.rdbuf(errors_);
    if (!line_.empty())
        putLine("");
}

EscapedErrors::int_type EscapedErrors::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::to_int_type('\n')))
        putLine("\n");
    else if (!traits_type::eq_int_type(c, traits_type::eof()))
        line_.push_back(traits_type::to_char_type(c));
    return traits_type::not_eof(c);
}

void EscapedErrors::putLine(const char* end) {
    const std::string text = printable(line_) + end;
    clearProgress();
    errors_->sputn(text.data(), static_cast<std::streamsize>(text.size()));
    line_.clear();
}

}  // namespace corvo::audit
