#pragma once
// A value or an error, for operations that report typed failures without throwing
// (std::expected arrives with C++23).
#include <stdexcept>
#include <utility>
#include <variant>

namespace vell {

struct Unit {
    bool operator==(const Unit&) const = default;
};

template <class E>
struct Unexpected {
    E error;
};

template <class E>
Unexpected<std::decay_t<E>> unexpected(E&& e) {
    return {std::forward<E>(e)};
}

template <class T, class E>
class Expected {
public:
    Expected(T value) : v_(std::in_place_index<0>, std::move(value)) {}  // NOLINT
    template <class G>
    Expected(Unexpected<G> u) : v_(std::in_place_index<1>, std::move(u.error)) {}  // NOLINT

    bool has_value() const { return v_.index() == 0; }
    explicit operator bool() const { return has_value(); }
    T& value() {
        if (!has_value()) throw std::logic_error("Expected holds an error");
        return std::get<0>(v_);
    }
    const T& value() const {
        if (!has_value()) throw std::logic_error("Expected holds an error");
        return std::get<0>(v_);
    }
    const E& error() const { return std::get<1>(v_); }
    T& operator*() { return value(); }
    const T& operator*() const { return value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }

private:
    std::variant<T, E> v_;
};

}  // namespace vell
