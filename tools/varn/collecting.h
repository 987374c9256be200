// A collection under way: drains the queues, shows each record and counts it, and takes back what
// ended threads have left in the tables.
#pragma once

#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <span>
#include <stop_token>
#include <string>
#include <thread>

#include "collector/decode.h"
#include "collector/drain.h"
#include "collector/objects.h"
#include "collector/stats.h"
#include "collector/tree.h"
#include "tools/varn/text_line.h"

namespace varn {

struct OutputOptions {
  std::string format = "text";  // or "tree" or "json"
  std::string path = {};        // empty: standard output
};

// The options --format and --out of the verbs that show records.
void add_output_options(CLI::App& verb, OutputOptions& options);

// Signals that are taken from a descriptor instead of ending the process. To be made before threads
// are. One that the process was started to ignore, as nohup does with SIGHUP, stays ignored.
class SignalQueue {
 public:
  SignalQueue(std::initializer_list<int> signals);
  ~SignalQueue();
  SignalQueue(const SignalQueue&) = delete;
  SignalQueue& operator=(const SignalQueue&) = delete;

  int fd() const { return fd_; }
  const sigset_t& mask_before() const { return mask_before_; }

 private:
  sigset_t mask_before_;
  int fd_;
};

class Collecting {
 public:
  // `objects` stay attached until after stop() and the summary. Throws Failure when the output
  // cannot be opened.
  Collecting(const SharedObjects& objects, const OutputOptions& options);
  ~Collecting();
  Collecting(const Collecting&) = delete;
  Collecting& operator=(const Collecting&) = delete;

  // Becomes readable when going on is of no use: no queue is left, or nobody takes the output.
  int ended_fd() const { return ended_fd_; }
  bool ended_early() const { return ended_early_.load(); }
  // Polled for nothing, tells when a pipe's reader has gone.
  int output_fd() const { return fileno(out_); }

  // Shows what the queues still hold, and no more. Ends the threads that use the objects.
  void stop();

  // After stop(). The stream for what is said at the end: the records' own when that is text on
  // standard output, else standard error.
  std::FILE* summary_stream() const;
  void print_summary() const;
  std::uint64_t records() const { return stats_.records; }

 private:
  void show(std::span<const RawRecord> records);
  void show(const RawRecord& raw);
  void write_out();
  void end_early();
  void keep_house(const std::stop_token& stopped);

  const SharedObjects& objects_;
  const std::string format_;
  const std::string path_;
  const FailCounts fails_at_start_;
  const int ended_fd_;
  std::FILE* const out_;
  std::atomic<bool> ended_early_{false};

  // Of the consumer's thread until stop().
  bool output_lost_ = false;
  std::string pending_;
  DecodedRecord record_;
  TextLines lines_;
  TraceTrees trees_;
  Stats stats_;

  // Last: their threads use all of the above.
  Drain drain_;
  std::jthread housekeeper_;
};

}  // namespace varn
