#pragma once

// A first-in first-out queue kept in one ring of slots: push at the back, pop at the
// front, index and iterate from the front. Unlike std::deque, which takes and frees a
// block every few entries as a queue moves along, it allocates only when it grows past
// its room, so a queue reserved for its largest size never allocates again.

#include <cstddef>
#include <iterator>
#include <type_traits>
#include <utility>
#include <vector>

namespace KVSDK {

template <class T>
class kv_ring_queue {
    template <bool Const>
    class iter {
        using queue = std::conditional_t<Const, const kv_ring_queue, kv_ring_queue>;

    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = std::conditional_t<Const, const T*, T*>;
        using reference = std::conditional_t<Const, const T&, T&>;

        iter(queue* q, size_t i) : m_q(q), m_i(i) {}
        reference operator*() const { return (*m_q)[m_i]; }
        pointer operator->() const { return &(*m_q)[m_i]; }
        iter& operator++() {
            ++m_i;
            return *this;
        }
        iter operator++(int) {
            iter before = *this;
            ++m_i;
            return before;
        }
        difference_type operator-(const iter& o) const {
            return static_cast<difference_type>(m_i) - static_cast<difference_type>(o.m_i);
        }
        bool operator==(const iter& o) const { return m_i == o.m_i; }
        bool operator!=(const iter& o) const { return m_i != o.m_i; }

    private:
        queue* m_q;
        size_t m_i;
    };

public:
    using value_type = T;
    using iterator = iter<false>;
    using const_iterator = iter<true>;

    kv_ring_queue() = default;
    kv_ring_queue(kv_ring_queue&& o) noexcept { swap(o); }
    kv_ring_queue& operator=(kv_ring_queue&& o) noexcept {
        kv_ring_queue(std::move(o)).swap(*this);
        return *this;
    }
    kv_ring_queue(const kv_ring_queue&) = delete;
    kv_ring_queue& operator=(const kv_ring_queue&) = delete;

    // Room for n entries without allocating.
    void reserve(size_t n) {
        if (n > m_slots.size()) {
            grow(n);
        }
    }

    size_t size() const { return m_count; }
    bool empty() const { return m_count == 0; }

    T& operator[](size_t i) { return m_slots[slot(i)]; }
    const T& operator[](size_t i) const { return m_slots[slot(i)]; }
    T& front() { return (*this)[0]; }
    const T& front() const { return (*this)[0]; }
    T& back() { return (*this)[m_count - 1]; }
    const T& back() const { return (*this)[m_count - 1]; }

    void push_back(T&& v) {
        if (m_count == m_slots.size()) {
            grow(m_slots.empty() ? 16 : 2 * m_slots.size());
        }
        m_slots[slot(m_count)] = std::move(v);
        ++m_count;
    }
    template <class... Args>
    T& emplace_back(Args&&... args) {
        push_back(T(std::forward<Args>(args)...));
        return back();
    }
    void pop_front() {
        m_slots[m_head] = T();
        m_head = slot(1);
        --m_count;
    }
    void clear() {
        while (m_count > 0) {
            pop_front();
        }
        m_head = 0;
    }
    void swap(kv_ring_queue& o) noexcept {
        m_slots.swap(o.m_slots);
        std::swap(m_head, o.m_head);
        std::swap(m_count, o.m_count);
    }

    iterator begin() { return iterator(this, 0); }
    iterator end() { return iterator(this, m_count); }
    const_iterator begin() const { return const_iterator(this, 0); }
    const_iterator end() const { return const_iterator(this, m_count); }

private:
    // Slot of entry i counted from the front (i <= size, so one wrap at most).
    size_t slot(size_t i) const {
        const size_t s = m_head + i;
        return s >= m_slots.size() ? s - m_slots.size() : s;
    }
    void grow(size_t n) {
        std::vector<T> slots(n);
        for (size_t i = 0; i < m_count; ++i) {
            slots[i] = std::move((*this)[i]);
        }
        m_slots.swap(slots);
        m_head = 0;
    }

    std::vector<T> m_slots;
    size_t m_head = 0;
    size_t m_count = 0;
};

template <class T>
void swap(kv_ring_queue<T>& a, kv_ring_queue<T>& b) noexcept {
    a.swap(b);
}

}  // namespace KVSDK
