// How many of each thing the system keeps at the wish of others. Every bound protects the process from a peer, and is a
// setting of the document "config"; what happens above it is said at each.
#pragma once

#include <cstddef>

namespace framework {

/// Set once before the first message is handled (init_sipstack_info does it), read by any thread afterwards.
struct Bounds {
  /// Registered user agents. A terminal has a handful; ports alone would allow 65,535, each with a body of 64 KiB. A
  /// further one is answered 400.
  std::size_t clients = 256;
  /// Network profiles that the registrar knows; they stay known once named. A further one is answered 400.
  std::size_t profiles = 64;
  /// Entries of user agents in the routing table. A further one is answered 400.
  std::size_t routing_entries = 1024;
  /// NOTIFYs that wait for the watcher to answer the one before.
  std::size_t waiting_notifies = 256;
  /// Challenges of one network profile.
  std::size_t challenges = 32;
};

/// The bounds in force in this process.
const Bounds& bounds();
void setBounds(const Bounds& bounds);

}  // namespace framework
