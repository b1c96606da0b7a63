// A list of rows of different types.
#pragma once

#include <cstddef>
#include <utility>

namespace qel::vexa::hwc {

namespace row_list_detail {

template <std::size_t index, typename Row>
struct element {
    Row row;
};
template <typename Indices, typename... Rows>
struct elements;
template <std::size_t... indices, typename... Rows>
struct elements<std::index_sequence<indices...>, Rows...> : element<indices, Rows>... {
    explicit constexpr elements(const Rows&... rows) : element<indices, Rows>{rows}... {}
};

template <std::size_t index, typename Row>
constexpr const Row& find(const element<index, Row>& found) {
    return found.row;
}

}  // namespace row_list_detail

// A tuple whose elements are reached without naming the types of all others, which the names of a tuple's
// functions do: for a hundred rows these take half a minute to compile.
template <typename... Rows>
class row_list : row_list_detail::elements<std::index_sequence_for<Rows...>, Rows...> {
public:
    explicit constexpr row_list(const Rows&... rows)
        : row_list_detail::elements<std::index_sequence_for<Rows...>, Rows...>(rows...) {}

    static constexpr std::size_t size() { return sizeof...(Rows); }

    template <std::size_t index>
    constexpr const auto& at() const {
        return row_list_detail::find<index>(*this);
    }
    // function(row...) with all rows, in their order.
    template <typename Function>
    constexpr auto apply(Function function) const {
        return [&]<std::size_t... indices>(std::index_sequence<indices...>) {
            return function(at<indices>()...);
        }
        (std::index_sequence_for<Rows...>());
    }
};

}  // namespace qel::vexa::hwc
