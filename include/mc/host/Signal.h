// Signal: a thread-safe multicast callback list (Boost.Signals2). Slots run on the thread that
// raises the signal; connect and disconnect may happen from any thread. OnDemandSignal builds
// the list at the first Get, so raising one nobody ever subscribed to costs a load.
#pragma once

#include <boost/signals2/signal.hpp>
#include <utility>

#include "mc/host/OnDemand.h"

namespace velacore {

template <class Signature>
using Signal = boost::signals2::signal<Signature>;
using SignalConnection = boost::signals2::scoped_connection;

template <class Signature>
class OnDemandSignal {
public:
    // The list to connect to, built now when there is none yet.
    Signal<Signature>& Get() { return box_.Get(); }
    bool HasList() const { return box_.Peek() != nullptr; }
    template <class... Args>
    void operator()(Args&&... args) const {
        if (Signal<Signature>* list = box_.Peek()) (*list)(std::forward<Args>(args)...);
    }

private:
    OnDemand<Signal<Signature>> box_;
};

}  // namespace velacore
