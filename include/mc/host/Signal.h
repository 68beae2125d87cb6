// Signal: a thread-safe multicast callback list (Boost.Signals2). Slots run on the thread that
// raises the signal; connect and disconnect may happen from any thread.
#pragma once

#include <boost/signals2/signal.hpp>

namespace velacore {

template <class Signature>
using Signal = boost::signals2::signal<Signature>;
using SignalConnection = boost::signals2::scoped_connection;

}  // namespace velacore
