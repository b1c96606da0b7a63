// A file's path, for platforms whose standard library lacks the filesystem part.
#pragma once

#include <string>
#include <utility>

namespace qel::vexa::stx::backport::filesystem {

class path {
public:
    path(const char* text) : text_(text) {}  // NOLINT(google-explicit-constructor): a path is its text
    path(std::string text) : text_(std::move(text)) {}  // NOLINT(google-explicit-constructor)

    const char* c_str() const { return text_.c_str(); }

private:
    std::string text_;
};

}  // namespace qel::vexa::stx::backport::filesystem
