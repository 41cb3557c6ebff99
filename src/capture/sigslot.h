// Signals and slots. A signal calls the member functions that are connected to it, in connection order. The
// destruction of either side removes the connection.
//
// A signal owns its connections, in a list. A slot holder keeps the set of signals it is connected to. Each
// side tells the other when it is destroyed, so neither ever holds a dangling pointer.
//
// A slot may connect and disconnect any slot while the signal emits, itself included, and may emit the same
// signal again. An iterator or a saved successor is not enough for that, because the running slot may remove
// the successor too. Every emission therefore registers itself with the signal as a `walk`, which
// holds the position of the next connection to call:
//
// - step() advances the position before it returns the connection, so the running connection may be deleted;
// - remove() first advances every walk that points to the removed connection to the connection after it;
// - append() links at the end of the list: an emission in progress calls the new connection too, unless it
//   has already reached the last one.
//
// Nested emissions form a stack of walks linked through m_outer, which is as deep as slots emit recursively.
// An emission costs no allocation; a removal costs one comparison for each emission in progress. A slot must
// not destroy the signal that is calling it.
//
// Thread rule: that of the lock policy. With single_threaded, connect, disconnect and emit must not run
// concurrently; callers on several threads must serialise them.
#pragma once

#include <list>
#include <memory>
#include <set>
#include <utility>

namespace sigslot {

// Lock policy without a lock. Slots: destructor pair 0 and 1, lock 2, unlock 3.
class single_threaded {
public:
    single_threaded() = default;
    single_threaded(const single_threaded&) = default;
    single_threaded& operator=(const single_threaded&) = default;
    virtual ~single_threaded() = default;

    virtual void lock() {}
    virtual void unlock() {}
};

template <class mt_policy>
class lock_block {
public:
    explicit lock_block(mt_policy& policy) : m_policy(policy) { m_policy.lock(); }
    ~lock_block() { m_policy.unlock(); }
    lock_block(const lock_block&) = delete;
    lock_block& operator=(const lock_block&) = delete;

private:
    mt_policy& m_policy;
};

class has_slots_interface;

// A signal as its slot holders see it. Slots: slot_disconnect 0, slot_duplicate 1.
class _signal_base_interface {
public:
    // Deletes every connection to the holder without telling the holder, which is being destroyed.
    virtual void slot_disconnect(has_slots_interface* slot) = 0;
    // Connects the copy of a holder to the same slots. The new holder records the signal itself.
    virtual void slot_duplicate(const has_slots_interface* old_slot, has_slots_interface* new_slot) = 0;

protected:
    _signal_base_interface() = default;
    _signal_base_interface(const _signal_base_interface&) = delete;
    _signal_base_interface& operator=(const _signal_base_interface&) = delete;
    ~_signal_base_interface() = default;
};

// A slot holder as its signals see it.
class has_slots_interface {
public:
    virtual void signal_connect(_signal_base_interface* sender) = 0;
    virtual void signal_disconnect(_signal_base_interface* sender) = 0;

protected:
    has_slots_interface() = default;
    has_slots_interface(const has_slots_interface&) = default;
    has_slots_interface& operator=(const has_slots_interface&) = default;
    ~has_slots_interface() = default;
};

// Base class of slot holders. A copy is connected to the same signals.
template <class mt_policy>
class has_slots : public has_slots_interface, public mt_policy {
public:
    has_slots() = default;
    has_slots(const has_slots& other) : has_slots_interface(other), mt_policy(other) {
        lock_block<mt_policy> guard(*this);
        try {
            for (_signal_base_interface* sender : other.m_senders) {
                m_senders.insert(sender);
                sender->slot_duplicate(&other, this);
            }
        } catch (...) {
            // No destructor runs: without this the signals would call an object that never existed.
            has_slots::disconnect_all();
            throw;
        }
    }
    has_slots& operator=(const has_slots&) = delete;
    ~has_slots() override { has_slots::disconnect_all(); }

    void signal_connect(_signal_base_interface* sender) override {
        lock_block<mt_policy> guard(*this);
        m_senders.insert(sender);
    }
    void signal_disconnect(_signal_base_interface* sender) override {
        lock_block<mt_policy> guard(*this);
        m_senders.erase(sender);
    }
    void disconnect_all() {
        lock_block<mt_policy> guard(*this);
        for (_signal_base_interface* sender : m_senders) {
            sender->slot_disconnect(this);
        }
        m_senders.clear();
    }

private:
    std::set<_signal_base_interface*> m_senders;
};

template <class mt_policy>
class _signal_base : public _signal_base_interface, public mt_policy {};

// One connection. Slots: destructor pair 0 and 1, getdest 2, emit 3, clone 4, duplicate 5.
template <class arg1, class arg2, class arg3, class arg4, class arg5, class mt_policy>
class _connection_base5 {
public:
    virtual ~_connection_base5() = default;
    virtual has_slots_interface* getdest() const = 0;
    virtual void emit(arg1 a1, arg2 a2, arg3 a3, arg4 a4, arg5 a5) = 0;
    // Both return a new connection that the caller owns: clone() to the same destination, duplicate() to
    // another one of the same type. Required by the contract: clone() has a slot, although nothing calls it.
    virtual _connection_base5* clone() = 0;
    virtual _connection_base5* duplicate(has_slots_interface* new_destination) = 0;

    _connection_base5(const _connection_base5&) = delete;
    _connection_base5& operator=(const _connection_base5&) = delete;

protected:
    _connection_base5() = default;
};

template <class dest_type, class arg1, class arg2, class arg3, class arg4, class arg5, class mt_policy>
class _connection5 final : public _connection_base5<arg1, arg2, arg3, arg4, arg5, mt_policy> {
public:
    using member_function = void (dest_type::*)(arg1, arg2, arg3, arg4, arg5);
    using base = _connection_base5<arg1, arg2, arg3, arg4, arg5, mt_policy>;

    _connection5(dest_type* object, member_function member) : m_object(object), m_member(member) {}

    has_slots_interface* getdest() const override { return m_object; }
    // Uses no member after the call, because the slot may have deleted this connection.
    void emit(arg1 a1, arg2 a2, arg3 a3, arg4 a4, arg5 a5) override {
        (m_object->*m_member)(a1, a2, a3, a4, a5);
    }
    base* clone() override { return new _connection5(m_object, m_member); }
    base* duplicate(has_slots_interface* new_destination) override {
        return new _connection5(static_cast<dest_type*>(new_destination), m_member);
    }

private:
    dest_type* const m_object;
    const member_function m_member;
};

// Owns the connections, in connection order.
template <class arg1, class arg2, class arg3, class arg4, class arg5, class mt_policy>
class _signal_base5 : public _signal_base<mt_policy> {
public:
    using connection = _connection_base5<arg1, arg2, arg3, arg4, arg5, mt_policy>;

    ~_signal_base5() override { _signal_base5::disconnect_all(); }

    void disconnect_all() {
        lock_block<mt_policy> guard(*this);
        while (!m_connected_slots.empty()) {
            m_connected_slots.front()->getdest()->signal_disconnect(this);
            remove(m_connected_slots.begin());
        }
    }

    void slot_disconnect(has_slots_interface* slot) override {
        lock_block<mt_policy> guard(*this);
        for (auto each = m_connected_slots.begin(); each != m_connected_slots.end();) {
            const auto current = each++;
            if ((*current)->getdest() == slot) {
                remove(current);
            }
        }
    }

    void slot_duplicate(const has_slots_interface* old_slot, has_slots_interface* new_slot) override {
        lock_block<mt_policy> guard(*this);
        connection_list copies;
        for (const auto& each : m_connected_slots) {
            if (each->getdest() == old_slot) {
                copies.emplace_back(each->duplicate(new_slot));
            }
        }
        m_connected_slots.splice(m_connected_slots.end(), copies);
    }

protected:
    using connection_list = std::list<std::unique_ptr<connection>>;

    // An emission in progress: the position of the next connection to call. See the top of this file.
    class walk {
    public:
        explicit walk(_signal_base5& signal)
            : m_signal(signal), m_next(signal.m_connected_slots.begin()), m_outer(signal.m_walk) {
            signal.m_walk = this;
        }
        ~walk() { m_signal.m_walk = m_outer; }
        walk(const walk&) = delete;
        walk& operator=(const walk&) = delete;

        // Returns the next connection, or null at the end.
        connection* step() {
            return m_next != m_signal.m_connected_slots.end() ? (m_next++)->get() : nullptr;
        }

    private:
        friend class _signal_base5;
        _signal_base5& m_signal;
        typename connection_list::iterator m_next;
        walk* const m_outer;
    };

    void append(std::unique_ptr<connection> made) {
        has_slots_interface* const slot = made->getdest();
        // Everything that may throw comes before the connection is linked.
        connection_list link;
        link.push_back(std::move(made));
        slot->signal_connect(this);
        m_connected_slots.splice(m_connected_slots.end(), link);
    }

private:
    void remove(typename connection_list::iterator removed) {
        for (walk* each = m_walk; each != nullptr; each = each->m_outer) {
            if (each->m_next == removed) {
                ++each->m_next;
            }
        }
        m_connected_slots.erase(removed);
    }

    connection_list m_connected_slots;
    // The innermost emission in progress, or null.
    walk* m_walk = nullptr;
};

template <class arg1, class arg2, class arg3, class arg4, class arg5, class mt_policy>
class signal5 : public _signal_base5<arg1, arg2, arg3, arg4, arg5, mt_policy> {
    using base = _signal_base5<arg1, arg2, arg3, arg4, arg5, mt_policy>;

public:
    // The object is borrowed: the connection ends with the object or with the signal.
    template <class dest_type>
    void connect(dest_type* object, void (dest_type::*member)(arg1, arg2, arg3, arg4, arg5)) {
        lock_block<mt_policy> guard(*this);
        this->append(std::make_unique<_connection5<dest_type, arg1, arg2, arg3, arg4, arg5, mt_policy>>(
            object, member));
    }

    // Calls every slot in connection order.
    void operator()(arg1 a1, arg2 a2, arg3 a3, arg4 a4, arg5 a5) {
        lock_block<mt_policy> guard(*this);
        typename base::walk emission(*this);
        while (auto* next = emission.step()) {
            next->emit(a1, a2, a3, a4, a5);
        }
    }
};

}  // namespace sigslot
