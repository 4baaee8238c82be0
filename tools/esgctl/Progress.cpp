#include "Progress.h"

#include <unistd.h>

#include <cstdio>

#include "Terminal.h"
#include "TextWidth.h"

namespace esgctl {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kPatience{1};
constexpr char kBackAndClear[] = "\r\x1b[K";

}  // namespace

Progress::Progress() : m_text("Asking the guide service") {
  if (isatty(STDERR_FILENO) != 0) {
    m_thread = std::thread([this] { Run(); });
  }
}

Progress::~Progress() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_ended = true;
  }
  m_changed.notify_one();
  if (m_thread.joinable()) {
    m_thread.join();
  }
}

void Progress::Report(const std::string& what, std::size_t done, std::size_t total) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_text = what;
  if (total > 1) {
    m_text += ", " + std::to_string(done) + " of " + std::to_string(total);
  }
}

void Progress::Run() {
  const Clock::time_point start = Clock::now();
  bool shown = false;
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_changed.wait_for(lock, kPatience, [this] { return m_ended; })) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start);
    const std::string elapsed = " (" + std::to_string(seconds.count()) + " s)";
    // One row, or the next line could not take its place.
    const int room = TerminalWidth(STDERR_FILENO) - 1 - DisplayWidth(elapsed);
    std::fputs((kBackAndClear + Cut(Printable(m_text), room) + elapsed).c_str(), stderr);
    std::fflush(stderr);
    shown = true;
  }
  if (shown) {
    std::fputs(kBackAndClear, stderr);
    std::fflush(stderr);
  }
}

}  // namespace esgctl
