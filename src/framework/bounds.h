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
  /// Routes: domains of the routing table. They are walked for each route command and each message that names a
  /// profile. A further one is not set.
  std::size_t routes = 256;
  /// NOTIFYs that wait for the watcher to answer the one before. Above it they are dropped, and the watcher is told of
  /// every profile anew when it answers.
  std::size_t waiting_notifies = 256;
  /// Challenges of one network profile. The one that came longest ago gives way to a further one.
  std::size_t challenges = 32;

  // What registrations bring, each and all together; a REGISTER above one of these is answered 400. With the defaults
  // there is room for 256 user agents of 600 feature tags of 60 bytes. What is searched for a request is linear in its
  // texts and hardly depends on what is registered (see routing/client_index.h); the worst request found, which holds
  // all of some 100,000 hostile tags, cost up to 5 ms on a busy machine.

  /// Addresses of record.
  std::size_t client_aors = 64;
  std::size_t aors = 2048;
  /// Feature tags; about 200 bytes of memory each, and three times its own.
  std::size_t client_feature_tags = 1024;
  std::size_t feature_tags = 163840;
  /// Bytes of one feature tag, and of all.
  std::size_t feature_tag_size = 256;
  std::size_t feature_tag_bytes = std::size_t{12} * 1024 * 1024;
  /// Bytes of what else is searched: addresses, events, methods, content types, packages, URIs.
  std::size_t client_text = 8192;
  std::size_t text_bytes = std::size_t{512} * 1024;
};

/// The bounds in force in this process.
const Bounds& bounds();
void setBounds(const Bounds& bounds);

}  // namespace framework
