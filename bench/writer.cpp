#include "bench/writer.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "bench/telegram.h"

namespace varn::bench {
namespace {

using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::duration<double, std::nano>;

}  // namespace

std::optional<double> drain_ns(Stage& stage, int telegrams) {
  constexpr std::uint8_t kNothingTraced = 0;
  const std::int64_t before = stage.tong_bytes();
  const std::int64_t whole = before + telegrams * std::int64_t{kTelegramRecord};
  stage.begin(Waiting::kRest, kNothingTraced, 0, true);
  for (int i = 0; i < telegrams; ++i) start_by_telegram();
  const std::int64_t first = stage.wait_for_tong_bytes(before + 1);
  const auto start = Clock::now();
  stage.wait_for_tong_bytes(whole);
  const Nanoseconds span = Clock::now() - start;
  if (!stage.end(telegrams)) throw std::runtime_error("telegrams did not get into the file");
  if (first > whole - (whole - before) / 2) return std::nullopt;
  return span.count() * double{kTelegramRecord} / static_cast<double>(whole - first);
}

double bare_write_ns(const Stage& stage, int records) {
  static const std::array<char, kTelegramRecord> record = {};
  const std::filesystem::path path = stage.directory() / "bare_writes.dat";
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "a"),
                                                             std::fclose);
  if (file == nullptr) throw std::runtime_error("cannot write " + path.string());
  bool written = true;
  const auto start = Clock::now();
  for (int i = 0; i < records; ++i) {
    written &= std::fwrite(record.data(), record.size(), 1, file.get()) == 1;
    written &= std::fflush(file.get()) == 0;
  }
  const Nanoseconds span = Clock::now() - start;
  std::filesystem::remove(path);
  if (!written) throw std::runtime_error("cannot write " + path.string());
  return span.count() / records;
}

}  // namespace varn::bench
