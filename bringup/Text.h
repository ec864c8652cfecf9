// Words as users type them, against the words a program knows: how far one is from another, so
// that a message can suggest what was meant ("did you mean 'read'?"). Free functions of their
// arguments only; safe from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kvx::bringup {

/// The number of single-character insertions, deletions and substitutions between `a` and `b`.
size_t editDistance(const std::string& a, const std::string& b);

/// The `candidates` that `name` may be a slip of, nearest first (then in alphabetical order), at
/// most `limit` of them, each once. A slip is at most two edits, or a quarter of the letters of a
/// longer name, and always fewer edits than `name` has letters: "rd" is no slip of "read".
std::vector<std::string> nearMisses(const std::string& name, const std::vector<std::string>& candidates,
                                    size_t limit);

/// `words` as a sentence lists them: "a", "a or b", "a, b or c", with `conjunction` for "or".
std::string listing(const std::vector<std::string>& words, const std::string& conjunction);

}  // namespace kvx::bringup
