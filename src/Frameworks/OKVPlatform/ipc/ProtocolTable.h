#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <tuple>
#include <type_traits>

/// The tables that tie the methods of a remote interface to their selectors; Protocol.h tells what
/// they are for and shows one.
namespace okv {

namespace detail {

// Not constexpr: calling one in a table is the compile error that names the fault.
inline void selector_colons_do_not_match_the_arguments() {}
inline void selector_stands_twice() {}
inline void method_stands_twice() {}

template <class Wanted, class... All>
inline constexpr int occurrences = (0 + ... + static_cast<int>(std::is_same_v<Wanted, All>));

template <auto Method>
struct MethodTraits;
template <class P, class R, class... A, R (P::*Method)(A...)>
struct MethodTraits<Method> {
    using Protocol = P;
    using Result = R;
    using Parameters = std::tuple<A...>;
    static constexpr std::size_t arity = sizeof...(A);
};

}  // namespace detail

/// One method of a protocol, a pointer to a virtual member, and its selector.
template <auto Method>
struct Row {
    std::string_view selector;
};

/// A row of a protocol's table. The selector is a literal with one colon for each argument of the
/// method; another number of colons does not compile.
template <auto Method>
consteval Row<Method> row(std::string_view selector) {
    const auto colons = static_cast<std::size_t>(std::count(selector.begin(), selector.end(), ':'));
    if (colons != detail::MethodTraits<Method>::arity)
        detail::selector_colons_do_not_match_the_arguments();
    return {selector};
}

/// A protocol's table of its rows. A selector or a method that stands twice does not compile.
template <class... Rows>
consteval std::tuple<Rows...> protocolTable(Rows... rows) {
    const std::array<std::string_view, sizeof...(Rows)> selectors{rows.selector...};
    for (std::size_t i = 0; i < selectors.size(); ++i) {
        if (std::count(selectors.begin(), selectors.end(), selectors[i]) > 1)
            detail::selector_stands_twice();
    }
    if (((detail::occurrences < Rows, Rows... >> 1) || ...)) detail::method_stands_twice();
    return {rows...};
}

/// The table of the protocol P; specialised beside P with what `protocolTable` answers, empty for a
/// class that is no protocol.
template <class P>
inline constexpr std::tuple<> protocol{};

namespace detail {

template <class Wanted, class Table>
inline constexpr bool hasRow = false;
template <class Wanted, class... Rows>
inline constexpr bool hasRow<Wanted, const std::tuple<Rows...>> = (std::is_same_v<Wanted, Rows> ||
                                                                   ...);

template <auto Method>
consteval std::string_view selectorOf() {
    using P = typename MethodTraits<Method>::Protocol;
    static_assert(hasRow<Row<Method>, decltype(protocol<P>)>,
                  "this method has no row in its protocol's table");
    return std::get<Row<Method>>(protocol<P>).selector;
}

}  // namespace detail

}  // namespace okv
