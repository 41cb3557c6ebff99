#include "src/capture/sigslot.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/support/doubles/raw_slots.h"

namespace {

using sigslot::has_slots;
using sigslot::has_slots_interface;
using sigslot::single_threaded;
using zumod::testing::CallSlot;
using Data = const unsigned char*;
using Signal = sigslot::signal5<Data, unsigned long, int, int, int, single_threaded>;
using ConnectionBase = sigslot::_connection_base5<Data, unsigned long, int, int, int, single_threaded>;
using Journal = std::vector<std::string>;

static_assert(!std::is_copy_constructible_v<Signal> && !std::is_copy_assignable_v<Signal>);

class Holder : public has_slots<single_threaded> {
public:
    Holder(std::string name, Journal& journal) : m_name(std::move(name)), m_journal(&journal) {}

    void OnFrame(Data data, unsigned long size, int width, int height, int format) {
        m_journal->push_back(m_name + ' ' + std::to_string(data[0]) + ' ' + std::to_string(size) + ' ' +
                             std::to_string(width) + 'x' + std::to_string(height) + ' ' +
                             std::to_string(format));
    }
    void OnFrameAgain(Data, unsigned long, int, int, int) { m_journal->push_back(m_name + " again"); }
    void OnFrameAct(Data, unsigned long, int, int, int) {
        m_journal->push_back(m_name + " acts");
        act(this);
    }
    void OnFrameThrow(Data, unsigned long, int, int, int) { throw std::runtime_error(m_name); }

    void Rename(const std::string& name) { m_name = name; }

    void (*act)(Holder*) = nullptr;
    Signal* signal = nullptr;
    Holder* victim = nullptr;

private:
    std::string m_name;
    Journal* m_journal;
};

class SigslotTest : public ::testing::Test {
protected:
    void Emit(Signal& emitter) { emitter(m_data, 42, 640, 480, 7); }

    Journal journal;
    Signal signal;
    Holder a{"a", journal};
    Holder b{"b", journal};
    Holder c{"c", journal};

private:
    unsigned char m_data[1] = {9};
};

TEST_F(SigslotTest, ASignalWithoutConnectionsCallsNothing) {
    Emit(signal);
    EXPECT_EQ(journal, Journal{});
}

TEST_F(SigslotTest, ASlotReceivesTheFiveArguments) {
    signal.connect(&a, &Holder::OnFrame);
    Emit(signal);
    EXPECT_EQ(journal, Journal{"a 9 42 640x480 7"});
}

TEST_F(SigslotTest, SlotsAreCalledInTheOrderOfConnection) {
    signal.connect(&b, &Holder::OnFrame);
    signal.connect(&a, &Holder::OnFrame);
    signal.connect(&b, &Holder::OnFrameAgain);
    Emit(signal);
    Emit(signal);
    EXPECT_EQ(journal, (Journal{"b 9 42 640x480 7", "a 9 42 640x480 7", "b again", "b 9 42 640x480 7",
                                "a 9 42 640x480 7", "b again"}));
}

TEST_F(SigslotTest, ADestroyedHolderIsNoLongerCalled) {
    {
        Holder gone("gone", journal);
        signal.connect(&gone, &Holder::OnFrame);
        signal.connect(&a, &Holder::OnFrameAgain);
        signal.connect(&gone, &Holder::OnFrameAgain);
    }
    Emit(signal);
    EXPECT_EQ(journal, Journal{"a again"});
}

TEST_F(SigslotTest, ADestroyedSignalIsForgottenByItsHolders) {
    // Records what the signal calls; disconnects nothing in its destructor.
    struct Spy : has_slots_interface {
        virtual ~Spy() = default;
        void signal_connect(sigslot::_signal_base_interface* sender) override { known.push_back(sender); }
        void signal_disconnect(sigslot::_signal_base_interface* sender) override {
            forgotten.push_back(sender);
        }
        void OnFrame(Data, unsigned long, int, int, int) {}
        std::vector<sigslot::_signal_base_interface*> known;
        std::vector<sigslot::_signal_base_interface*> forgotten;
    };
    Spy spy;
    auto owned = std::make_unique<Signal>();
    sigslot::_signal_base_interface* const address = owned.get();
    owned->connect(&spy, &Spy::OnFrame);
    owned->connect(&a, &Holder::OnFrame);
    EXPECT_EQ(spy.known, std::vector{address});
    owned.reset();
    EXPECT_EQ(spy.forgotten, std::vector{address});
}

TEST_F(SigslotTest, ASlotThatDisconnectsItselfDoesNotEndTheEmission) {
    b.act = [](Holder* self) { self->disconnect_all(); };
    signal.connect(&a, &Holder::OnFrameAgain);
    signal.connect(&b, &Holder::OnFrameAct);
    signal.connect(&c, &Holder::OnFrameAgain);
    Emit(signal);
    Emit(signal);
    EXPECT_EQ(journal, (Journal{"a again", "b acts", "c again", "a again", "c again"}));
}

TEST_F(SigslotTest, AHolderConnectedTwiceInARowMayDisconnectItself) {
    a.act = [](Holder* self) { self->disconnect_all(); };
    signal.connect(&a, &Holder::OnFrameAct);
    signal.connect(&a, &Holder::OnFrameAgain);
    signal.connect(&b, &Holder::OnFrameAgain);
    Emit(signal);
    EXPECT_EQ(journal, (Journal{"a acts", "b again"}));
}

TEST_F(SigslotTest, ASlotMayDisconnectTheNextOne) {
    a.victim = &b;
    a.act = [](Holder* self) { self->victim->disconnect_all(); };
    signal.connect(&a, &Holder::OnFrameAct);
    signal.connect(&b, &Holder::OnFrameAgain);
    signal.connect(&c, &Holder::OnFrameAgain);
    Emit(signal);
    EXPECT_EQ(journal, (Journal{"a acts", "c again"}));
}

TEST_F(SigslotTest, ASlotMayDisconnectAllSlots) {
    a.signal = &signal;
    a.act = [](Holder* self) { self->signal->disconnect_all(); };
    signal.connect(&a, &Holder::OnFrameAct);
    signal.connect(&b, &Holder::OnFrameAgain);
    Emit(signal);
    Emit(signal);
    EXPECT_EQ(journal, (Journal{"a acts"}));
}

TEST_F(SigslotTest, ASlotMayDisconnectItselfAndEmitAgain) {
    a.signal = &signal;
    a.act = [](Holder* self) {
        self->disconnect_all();
        const unsigned char data[] = {1};
        (*self->signal)(data, 0, 0, 0, 0);
    };
    b.act = [](Holder* self) { self->disconnect_all(); };
    signal.connect(&a, &Holder::OnFrameAct);
    signal.connect(&b, &Holder::OnFrameAct);
    Emit(signal);
    EXPECT_EQ(journal, (Journal{"a acts", "b acts"}));
}

TEST_F(SigslotTest, AConnectionMadeDuringAnEmissionIsCalledUnlessTheLastSlotMadeIt) {
    for (const bool last_slot_connects : {false, true}) {
        journal.clear();
        signal.disconnect_all();
        a.signal = &signal;
        a.victim = &c;
        a.act = [](Holder* self) { self->signal->connect(self->victim, &Holder::OnFrameAgain); };
        if (last_slot_connects) {
            signal.connect(&b, &Holder::OnFrameAgain);
        }
        signal.connect(&a, &Holder::OnFrameAct);
        if (!last_slot_connects) {
            signal.connect(&b, &Holder::OnFrameAgain);
        }
        Emit(signal);
        EXPECT_EQ(journal, last_slot_connects ? (Journal{"b again", "a acts"})
                                              : (Journal{"a acts", "b again", "c again"}));
    }
}

TEST_F(SigslotTest, ASignalIsUsableAfterASlotHasThrown) {
    signal.connect(&a, &Holder::OnFrameThrow);
    signal.connect(&b, &Holder::OnFrameAgain);
    EXPECT_THROW(Emit(signal), std::runtime_error);
    a.disconnect_all();
    Emit(signal);
    EXPECT_EQ(journal, Journal{"b again"});
}

TEST_F(SigslotTest, ACopiedHolderIsConnectedBehindTheOthers) {
    auto owned = std::make_unique<Holder>("a", journal);
    signal.connect(owned.get(), &Holder::OnFrameAgain);
    signal.connect(&b, &Holder::OnFrameAgain);
    Holder copy(*owned);
    copy.Rename("copy");
    Emit(signal);
    EXPECT_EQ(journal, (Journal{"a again", "b again", "copy again"}));

    journal.clear();
    owned.reset();
    Emit(signal);
    EXPECT_EQ(journal, (Journal{"b again", "copy again"}));
}

// A signal that has no memory for the connections of a copy.
class FullSignal final : public sigslot::_signal_base_interface {
public:
    void slot_disconnect(has_slots_interface*) override {}
    void slot_duplicate(const has_slots_interface*, has_slots_interface*) override { throw std::bad_alloc(); }
};

TEST_F(SigslotTest, ACopyOfAHolderThatFailsIsConnectedToNothing) {
    // A holder connects to its signals in the order of their addresses.
    struct {
        Signal first;
        FullSignal full;
    } signals;
    signals.first.connect(&a, &Holder::OnFrameAgain);
    a.signal_connect(&signals.full);
    EXPECT_THROW(Holder copy(a), std::bad_alloc);
    Emit(signals.first);
    EXPECT_EQ(journal, Journal{"a again"});
    a.disconnect_all();
}

TEST_F(SigslotTest, ADestroyedCopyOfAHolderIsNoLongerCalled) {
    signal.connect(&a, &Holder::OnFrameAgain);
    { const Holder copy(a); }
    Emit(signal);
    EXPECT_EQ(journal, Journal{"a again"});
}

TEST_F(SigslotTest, ADestroyedHolderIsDisconnectedFromAllItsSignals) {
    Signal first;
    Signal second;
    {
        Holder gone("gone", journal);
        first.connect(&gone, &Holder::OnFrameAgain);
        second.connect(&gone, &Holder::OnFrameAgain);
        Emit(first);
        Emit(second);
    }
    Emit(first);
    Emit(second);
    EXPECT_EQ(journal, (Journal{"gone again", "gone again"}));
}

// Counts the locks that are held, and how often one was taken.
class CountingPolicy {
public:
    virtual ~CountingPolicy() = default;
    virtual void lock() {
        ++locks;
        ++taken;
    }
    virtual void unlock() { --locks; }
    int locks = 0;
    int taken = 0;
};
using CountingSignal = sigslot::signal5<Data, unsigned long, int, int, int, CountingPolicy>;

TEST_F(SigslotTest, SlotsRunUnderThePolicysLock) {
    struct Slot : has_slots<CountingPolicy> {
        void OnFrame(Data, unsigned long, int, int, int) { seen = signal->locks; }
        CountingSignal* signal = nullptr;
        int seen = 0;
    };
    CountingSignal counting;
    Slot slot;
    slot.signal = &counting;
    counting.connect(&slot, &Slot::OnFrame);
    counting(nullptr, 0, 0, 0, 0);
    EXPECT_EQ(slot.seen, 1);
    EXPECT_EQ(counting.locks, 0);
}

TEST_F(SigslotTest, EachSideTakesItsLockOnceForAChangeOfItsConnections) {
    struct Slot : has_slots<CountingPolicy> {
        void OnFrame(Data, unsigned long, int, int, int) {}
    };
    CountingSignal counting;
    Slot slot;
    counting.connect(&slot, &Slot::OnFrame);
    EXPECT_EQ(counting.taken, 1);
    EXPECT_EQ(slot.taken, 1);
    Slot copy(slot);  // copies the count too
    EXPECT_EQ(counting.taken, 2);
    EXPECT_EQ(copy.taken, 2);
    copy.disconnect_all();
    EXPECT_EQ(counting.taken, 3);
    EXPECT_EQ(copy.taken, 3);
    counting.disconnect_all();
    EXPECT_EQ(counting.taken, 4);
    EXPECT_EQ(slot.taken, 2);
    EXPECT_EQ(counting.locks + slot.locks + copy.locks, 0);
}

// The vtables, slot by slot.

TEST_F(SigslotTest, TheSlotsOfTheLockPolicy) {
    struct Policy : single_threaded {
        explicit Policy(Journal& target) : journal(&target) {}
        ~Policy() override { journal->push_back("destroyed"); }
        void lock() override { journal->push_back("lock"); }
        void unlock() override { journal->push_back("unlock"); }
        Journal* journal;
    };
    auto* policy = new Policy(journal);
    CallSlot(policy, 2);
    CallSlot(policy, 3);
    CallSlot(policy, 1);
    alignas(Policy) char storage[sizeof(Policy)];
    CallSlot(new (storage) Policy(journal), 0);
    EXPECT_EQ(journal, (Journal{"lock", "unlock", "destroyed", "destroyed"}));
}

TEST_F(SigslotTest, TheSlotsOfTheSignal) {
    signal.connect(&a, &Holder::OnFrameAgain);
    const sigslot::_signal_base_interface* interface = &signal;
    CallSlot<void, const has_slots_interface*, has_slots_interface*>(interface, 1, &a, &b);
    Emit(signal);
    EXPECT_EQ(journal, (Journal{"a again", "b again"}));

    journal.clear();
    CallSlot<void, has_slots_interface*>(interface, 0, &a);
    Emit(signal);
    EXPECT_EQ(journal, Journal{"b again"});
    CallSlot<void, has_slots_interface*>(interface, 0, &b);
}

TEST_F(SigslotTest, TheSlotsOfTheConnection) {
    using Connection = sigslot::_connection5<Holder, Data, unsigned long, int, int, int, single_threaded>;
    const unsigned char data[] = {9};
    ConnectionBase* connection = new Connection(&a, &Holder::OnFrame);
    EXPECT_EQ(CallSlot<has_slots_interface*>(connection, 2), &a);
    CallSlot<void, Data, unsigned long, int, int, int>(connection, 3, data, 42, 640, 480, 7);
    auto* clone = CallSlot<ConnectionBase*>(connection, 4);
    EXPECT_EQ(clone->getdest(), &a);
    clone->emit(data, 43, 640, 480, 7);
    auto* duplicate = CallSlot<ConnectionBase*, has_slots_interface*>(connection, 5, &b);
    EXPECT_EQ(duplicate->getdest(), &b);
    duplicate->emit(data, 44, 640, 480, 7);
    EXPECT_EQ(journal, (Journal{"a 9 42 640x480 7", "a 9 43 640x480 7", "b 9 44 640x480 7"}));
    CallSlot(connection, 1);
    CallSlot(clone, 1);
    CallSlot(duplicate, 1);
}

TEST_F(SigslotTest, TheBasesOfASignal) {
    using Base5 = sigslot::_signal_base5<Data, unsigned long, int, int, int, single_threaded>;
    using Base = sigslot::_signal_base<single_threaded>;
    static_assert(std::is_base_of_v<Base5, Signal> && std::is_base_of_v<Base, Base5>);
    static_assert(std::is_base_of_v<sigslot::_signal_base_interface, Base>);
    static_assert(std::is_base_of_v<single_threaded, Base>);
    // The interface is the primary base: it shares the signal's vtable.
    const sigslot::_signal_base_interface* interface = &signal;
    EXPECT_EQ(static_cast<const void*>(interface), static_cast<const void*>(&signal));
}

}  // namespace
