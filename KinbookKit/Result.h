#pragma once

#include <cassert>
#include <type_traits>
#include <utility>
#include <variant>

namespace kinbook {

// The error half of a Result, wrapped so that a Result<T, E> can be built
// from either side even when T and E are the same type.
template <typename E>
struct Failure {
    E error;
};

template <typename E>
Failure<std::decay_t<E>> failure(E&& error) {
    return Failure<std::decay_t<E>>{std::forward<E>(error)};
}

// A value or an error. The core's errors are values: no exception crosses a
// subsystem boundary, and a caller cannot forget to look (nodiscard).
template <typename T, typename E>
class [[nodiscard]] Result {
public:
    Result(T value) : m_storage(std::in_place_index<0>, std::move(value)) {}
    Result(Failure<E> failure) : m_storage(std::in_place_index<1>, std::move(failure.error)) {}

    bool ok() const { return m_storage.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & {
        assert(ok());
        return std::get<0>(m_storage);
    }
    const T& value() const& {
        assert(ok());
        return std::get<0>(m_storage);
    }
    T&& value() && {
        assert(ok());
        return std::get<0>(std::move(m_storage));
    }
    const E& error() const {
        assert(!ok());
        return std::get<1>(m_storage);
    }

    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }

    T valueOr(T fallback) const& { return ok() ? value() : std::move(fallback); }

private:
    std::variant<T, E> m_storage;
};

// A Result for operations that produce nothing but may fail.
template <typename E>
class [[nodiscard]] Result<void, E> {
public:
    Result() = default;
    Result(Failure<E> failure) : m_error(std::move(failure.error)), m_failed(true) {}

    bool ok() const { return !m_failed; }
    explicit operator bool() const { return ok(); }
    const E& error() const {
        assert(m_failed);
        return m_error;
    }

private:
    E m_error{};
    bool m_failed = false;
};

} // namespace kinbook
