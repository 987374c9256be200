#include "tools/varn/collecting.h"

#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>
#include <stop_token>

#include "collector/entries.h"
#include "tools/varn/json_line.h"
#include "tools/varn/summary.h"
#include "tools/varn/tree_text.h"
#include "tools/varn/verbs.h"

namespace varn {
namespace {

std::FILE* open_output(const std::string& path) {
  if (path.empty()) return stdout;
  std::FILE* const file = std::fopen(path.c_str(), "we");
  if (file == nullptr) throw Failure("cannot open " + path + ": " + std::strerror(errno));
  return file;
}

}  // namespace

void add_output_options(CLI::App& verb, OutputOptions& options) {
  verb.add_option("--format", options.format,
                  "A line for each record, of text or of JSON, or a tree for each transaction")
      ->check(CLI::IsMember({"tree", "text", "json"}))
      ->capture_default_str();
  verb.add_option("--out", options.path, "File for the records instead of standard output")
      ->type_name("FILE");
}

SignalQueue::SignalQueue(std::initializer_list<int> signals) {
  sigset_t taken;
  sigemptyset(&taken);
  for (const int signal : signals) {
    struct sigaction before = {};
    sigaction(signal, nullptr, &before);
    if (signal != SIGHUP || before.sa_handler != SIG_IGN) sigaddset(&taken, signal);
  }
  sigset_t blocked = taken;
  sigaddset(&blocked, SIGPIPE);  // a reader of the output that goes away is an error of the write
  pthread_sigmask(SIG_BLOCK, &blocked, &mask_before_);
  fd_ = signalfd(-1, &taken, SFD_CLOEXEC);
  if (fd_ < 0) throw Failure(std::string("cannot wait for signals: ") + std::strerror(errno));
}

SignalQueue::~SignalQueue() { close(fd_); }

Collecting::Collecting(const SharedObjects& objects, const OutputOptions& options)
    : objects_(objects),
      format_(options.format),
      path_(options.path),
      fails_at_start_(fail_counts(*objects.que_info)),
      ended_fd_(eventfd(0, EFD_CLOEXEC)),
      out_(open_output(options.path)),
      trees_([this](const TraceTree& tree) { pending_ += tree_text(tree); }),
      drain_(objects.msgq_ids, [this](std::span<const RawRecord> records) { show(records); },
             {.on_reader_lost =
                  [this](const std::string& reason, int readers_left) {
                    std::fprintf(stderr, "varn: %s\n", reason.c_str());
                    if (readers_left == 0) end_early();
                  }}),
      housekeeper_([this](const std::stop_token& stopped) { keep_house(stopped); }) {}

Collecting::~Collecting() {
  drain_.stop();
  if (out_ != stdout) std::fclose(out_);
  close(ended_fd_);
}

void Collecting::keep_house(const std::stop_token& stopped) {
  constexpr std::chrono::seconds kPause(1);
  std::mutex lock;
  std::condition_variable_any never;
  std::unique_lock guard(lock);
  do {
    take_entries_back(*objects_.ptrc_hash_tbl, objects_.ptrc_hash_semid);
    never.wait_for(guard, stopped, kPause, [] { return false; });
  } while (!stopped.stop_requested());
}

void Collecting::end_early() {
  ended_early_.store(true);
  eventfd_write(ended_fd_, 1);
}

void Collecting::stop() {
  housekeeper_ = {};  // ended here: the caller detaches the objects next
  drain_.stop();
  trees_.finish();
  write_out();
}

void Collecting::show(std::span<const RawRecord> records) {
  for (const RawRecord& raw : records) {
    decode(raw.data, raw.size, record_);
    count_record(stats_, raw.queue, record_);
    if (!output_lost_) show(raw);
  }
  write_out();
}

void Collecting::show(const RawRecord& raw) {
  if (format_ == "tree") return trees_.add(record_);
  if (format_ == "text" && stats_.records == 1) pending_ += text_heading(lines_) + '\n';
  pending_ += format_ == "json" ? json_line(raw.queue, raw.size, record_)
                                : text_line(lines_, raw.queue, raw.size, record_);
  pending_ += '\n';
}

// A lost output does not stop the draining: traced processes must not find full queues for it.
void Collecting::write_out() {
  if (output_lost_ || pending_.empty()) return;
  std::fwrite(pending_.data(), 1, pending_.size(), out_);
  pending_.clear();
  if (std::fflush(out_) == 0 && std::ferror(out_) == 0) return;
  output_lost_ = true;
  if (errno != EPIPE)
    std::fprintf(stderr, "varn: the records cannot be written to %s: %s\n",
                 path_.empty() ? "standard output" : path_.c_str(), std::strerror(errno));
  end_early();
}

std::FILE* Collecting::summary_stream() const {
  return format_ == "json" || !path_.empty() ? stderr : stdout;
}

void Collecting::print_summary() const {
  const std::string text = summary_text(stats_, objects_.msgq_ids.size(), fails_at_start_,
                                        fail_counts(*objects_.que_info));
  std::FILE* const stream = summary_stream();
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

}  // namespace varn
