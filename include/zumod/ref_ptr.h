// A smart pointer that owns one reference to a counted object. It is one pointer wide. Returned by value it
// uses the hidden return slot of the C++ ABI; counted results cross a module boundary that way.
//
// Thread rule: one thread at a time uses a CRefPtr_T; the object it points at may be shared.
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

namespace zumod {

template <class T>
class CRefPtr_T {
public:
    CRefPtr_T() = default;
    CRefPtr_T(std::nullptr_t) {}

    // Adds a reference: use it for a new object (count 0) and for a borrowed pointer.
    explicit CRefPtr_T(T* object) : m_object(object) {
        if (m_object != nullptr) {
            m_object->AddRef();
        }
    }

    CRefPtr_T(const CRefPtr_T& other) : CRefPtr_T(other.m_object) {}
    CRefPtr_T(CRefPtr_T&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}

    // From an owner of a derived type, as with plain pointers.
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    CRefPtr_T(const CRefPtr_T<U>& other) : CRefPtr_T(static_cast<T*>(other.Get())) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    CRefPtr_T(CRefPtr_T<U>&& other) noexcept : m_object(other.Detach()) {}

    ~CRefPtr_T() {
        if (m_object != nullptr) {
            m_object->Release();
        }
    }

    CRefPtr_T& operator=(const CRefPtr_T& other) {
        CRefPtr_T(other).Swap(*this);
        return *this;
    }
    CRefPtr_T& operator=(CRefPtr_T&& other) noexcept {
        CRefPtr_T(std::move(other)).Swap(*this);
        return *this;
    }

    // Takes over a reference that the caller owns; adds none.
    static CRefPtr_T Adopt(T* object) {
        CRefPtr_T owner;
        owner.m_object = object;
        return owner;
    }

    // Passes the reference to the caller, who must release it.
    [[nodiscard]] T* Detach() { return std::exchange(m_object, nullptr); }

    void Swap(CRefPtr_T& other) noexcept { std::swap(m_object, other.m_object); }

    // Borrowed: valid while this owner holds its reference.
    T* Get() const { return m_object; }
    T* operator->() const { return m_object; }
    T& operator*() const { return *m_object; }
    explicit operator bool() const { return m_object != nullptr; }

private:
    T* m_object = nullptr;
};

template <class T, class U>
bool operator==(const CRefPtr_T<T>& left, const CRefPtr_T<U>& right) {
    return left.Get() == right.Get();
}
template <class T, class U>
bool operator!=(const CRefPtr_T<T>& left, const CRefPtr_T<U>& right) {
    return left.Get() != right.Get();
}
template <class T>
bool operator==(const CRefPtr_T<T>& left, std::nullptr_t) {
    return left.Get() == nullptr;
}
template <class T>
bool operator!=(const CRefPtr_T<T>& left, std::nullptr_t) {
    return left.Get() != nullptr;
}

static_assert(sizeof(CRefPtr_T<char>) == sizeof(void*), "one pointer");

}  // namespace zumod
