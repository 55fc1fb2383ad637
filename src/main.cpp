// The process's entry: one engine, from the command line to the end of its loop.

#include <cstdio>
#include <new>

#include "engine/engine_proxy.h"
#include "framework/log.h"
#include "framework/utility.h"

int main(int argc, char** argv) {
  // Never deleted: listeners and queued events refer to it until the process is gone.
  IMS_engine_proxy* engine = nullptr;
  try {
    engine = new IMS_engine_proxy;
  } catch (const std::bad_alloc&) {
    return 0;  // the engine, or what it is made of: nothing can be said or served
  }
  IMS_engine_proxy::set_instance(engine);
  engine->set_options(argc, argv);
  IMS_log::log_to_file(stderr);
  IMS_log::set_progname(IMS_utility::pretrim_filepath(argc > 0 ? argv[0] : "ue-proxy").c_str());
  engine->print_usage();
  if (!IMS_daemon::make_daemon()) return 0;
  IMS_log::set_options(argc, argv);
  engine->open_framework_sockets();
  engine->run();
  engine->close_framework_sockets();
  return 0;
}
