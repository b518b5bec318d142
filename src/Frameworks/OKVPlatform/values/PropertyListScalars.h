#pragma once

#include <OKVPlatform/values/Value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The texts by which the XML form writes its scalars. Readers answer none for a text that is not
/// exactly of the form; blanks around it are the caller's business.
namespace okv {

/// Decimal, or hexadecimal after 0x, with an optional sign; none beyond int64.
std::optional<std::int64_t> parseInteger(std::string_view text);
/// Decimal with an optional exponent, or inf, infinity, nan in any case, with an optional sign;
/// none beyond double.
std::optional<double> parseReal(std::string_view text);
/// "2026-01-31T23:59:59Z".
std::optional<Date> parseIsoDate(std::string_view text);
/// Base64 with any blanks in between; the padding must be there.
std::optional<Data> decodeBase64(std::string_view text);

/// The shortest text that reads back as the same number.
std::string formatReal(double number);
/// To whole seconds, downwards; none outside the years 1 to 9999.
std::optional<std::string> formatIsoDate(Date date);
std::string encodeBase64(const Data& data);

bool isBlank(char c) noexcept;
std::string_view withoutSurroundingBlanks(std::string_view text) noexcept;
/// The digit's value, or -1 when `c` is not hexadecimal.
int hexDigitValue(char c) noexcept;

}  // namespace okv
