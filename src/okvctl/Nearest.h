#pragma once

#include <span>
#include <string>
#include <string_view>

namespace okvctl {

/// How many characters must be put in, taken out, changed or swapped with their neighbour to get
/// from one word to the other.
std::size_t distanceBetween(std::string_view a, std::string_view b);

/// "a, b, c" with another separator where one is given.
std::string joined(std::span<const std::string_view> words, std::string_view separator = ", ");

/// "there is no KIND 'word', only a, b, c", with the nearest one.
std::string noneSuch(std::string_view kind, std::string_view word,
                     std::span<const std::string_view> known);

/// "; did you mean WORD?" with the nearest of the known words, "" where none is near.
std::string didYouMean(std::string_view word, std::span<const std::string_view> known);

}  // namespace okvctl
