// The process: detaching, signals, and its files.
#pragma once

/// Base of every user agent of the framework. Its statics are the process's.
class IMS_daemon {
 public:
  IMS_daemon() = default;
  IMS_daemon(const IMS_daemon&) = delete;
  IMS_daemon& operator=(const IMS_daemon&) = delete;

  /// Writes the usage to standard error when help was asked for.
  virtual void print_usage();
  /// Removes what the process left in the run directory (control socket, pid file). May be called again.
  virtual void clean_daemon();
  /// SIGTERM and SIGINT stop the message loop, SIGHUP and SIGPIPE are ignored. Needs the reactor, so
  /// open_framework_sockets calls it.
  virtual void set_signal_handlers();
  virtual ~IMS_daemon();

  /// Detaches (double duty of fork and setsid, working directory /, standard input and output to /dev/null, standard
  /// error kept for the log), unless the foreground was asked for. False in the parent, and when forking fails (with a
  /// log line).
  static bool make_daemon();

  /// Help was asked for on the command line.
  static bool __d_arg_h;
  /// -f: stay in the foreground.
  static bool foreground;
};
