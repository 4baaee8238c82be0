#include "GuideService.h"

#include <benchmark/benchmark.h>
#include <glib.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "Bare.h"
#include "IPCS/internal/Wire.h"
#include "Interleave.h"

namespace guide {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kName[] = "org.example.GuideService";
constexpr int kServices = 100;
constexpr int kDays = 14;
constexpr int kDayProgrammes = 72;
constexpr int kLongService = 999;
constexpr int kLongList = 10000;
constexpr long kDay = 86400;

std::string Sentence(int i) {
  static const char* const kWords[] = {
      "the",  "sea",     "wind",   "and", "an",   "old", "ship", "that",    "comes", "home",
      "with", "letters", "nobody", "has", "sent", "to",  "a",    "village", "by",    "night"};
  std::string text;
  for (int word = 0; word < 30; ++word) {
    text += kWords[(i * 7 + word * (1 + i % 5)) % 20] + std::string(" ");
  }
  return text;
}

struct Writer {
  void Write(const std::string& name, const std::string& body) const {
    std::ofstream(folder + "/" + name + ".xml") << "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                                                << body << '\n';
  }

  void Service(int service) const {
    const std::string id = std::to_string(service);
    Write("service-" + id, "<Service id=\"" + id + "\" version=\"1\"><Name text=\"Service " + id +
                               "\" xml:lang=\"en\"/></Service>");
  }

  void Content(int service, int content) const {
    const std::string id = "EP" + std::to_string(1000000000L + content);
    Write("content-" + id,
          "<Content id=\"" + id + "\" version=\"" + version + "\"><ServiceReference idRef=\"" +
              std::to_string(service) + "\"/><Name text=\"Programme " + std::to_string(content) +
              "\" xml:lang=\"en\"/><Description text=\"" + Sentence(content) +
              "\" xml:lang=\"en\"/><Length>PT20M</Length><Genre href=\"genre-cs/:82\"/><PrivateExt>"
              "<ContentIcon MIMEType=\"image/png\" width=\"240\" height=\"360\">"
              "http://img.example.com/" +
              id + ".png?w=240&amp;h=360</ContentIcon></PrivateExt></Content>");
  }

  void Schedule(int service, int day, int first, int programmes, long step) const {
    const std::string id = std::to_string(service) + "-" + std::to_string(day);
    std::string xml = "<Schedule id=\"" + id + "\" version=\"" + version +
                      "\"><ServiceReference idRef=\"" + std::to_string(service) + "\"/>";
    for (int i = 0; i < programmes; ++i) {
      const long start = begin + day * kDay + i * step;
      xml += "<ContentReference idRef=\"EP" + std::to_string(1000000000L + first + i) +
             "\"><PresentationWindow startTime=\"" + std::to_string(start) + "\" endTime=\"" +
             std::to_string(start + step) + "\"/></ContentReference>";
    }
    Write("schedule-" + id, xml + "</Schedule>");
  }

  std::string folder;
  std::string version;
  long begin = (std::time(nullptr) / kDay) * kDay + 2208988800L;
};

/// One content for each programme. A new guide has new versions of all schedules, and of the
/// contents of one day.
void WriteGuide(const std::string& folder, bool isNew) {
  const Writer writer{folder, isNew ? "2" : "1"};
  for (int service = 0; service < kServices; ++service) {
    writer.Service(service);
    for (int day = 0; day < kDays; ++day) {
      const int first = (service * kDays + day) * kDayProgrammes;
      writer.Schedule(service, day, first, kDayProgrammes, kDay / kDayProgrammes);
      for (int i = first; i < first + kDayProgrammes && (!isNew || day == 0); ++i) {
        writer.Content(service, i);
      }
    }
  }
  if (isNew) {
    writer.Service(kServices);  // the number of services then shows that the guide is complete
  }
}

std::string Request(int service, int duration) {
  return R"({"duration":)" + std::to_string(duration) + R"(,"global_service_id":")" +
         std::to_string(service) + R"(","start_time":)" + std::to_string(Writer().begin) + "}";
}

esg::internal::MessagePtr Ask(DBusConnection* connection, const char* method,
                              const std::string& request) {
  const auto call = bare::NewCall(kName, method, request);
  esg::internal::MessagePtr answer(
      dbus_connection_send_with_reply_and_block(connection, call.get(), -1, nullptr));
  bare::Require(answer != nullptr, "the guide service does not answer");
  return answer;
}

/// The peak resident size of a process so far, in MiB.
double PeakMemory(GPid service) {
  std::ifstream status("/proc/" + std::to_string(service) + "/status");
  for (std::string name; status >> name && name != "VmHWM:";) {
  }
  double kilobytes = 0;
  bare::Require(static_cast<bool>(status >> kilobytes), "no such process");
  constexpr double kMebibyte = 1024;
  return kilobytes / kMebibyte;
}

/// A list of the guide service against a service that replies with the same bytes.
void GuideList(benchmark::State& state) {
  static DBusConnection* connection = bare::Open();
  const auto programmes = static_cast<int>(state.range(0));
  const std::string request = Request(kLongService, programmes * 60);
  const auto list = Ask(connection, "GetProgramList", request);
  bare::Call(connection, "Keep", bare::Payload(list.get()));
  const auto ask = [&] { benchmark::DoNotOptimize(Ask(connection, "GetProgramList", request)); };
  Interleave(state, {std::max(1, 2000 / programmes), 1},
             {{"guide", ask}, {"prepared", [&] {
                                 benchmark::DoNotOptimize(bare::Call(connection, "Kept", request));
                               }}});
}
BENCHMARK(GuideList)->Arg(100)->Arg(1000)->Arg(kLongList)->Iterations(15)->UseRealTime();

}  // namespace

void WriteLongGuide(const std::string& folder) {
  const Writer writer{folder, "1"};
  writer.Service(kLongService);
  writer.Schedule(kLongService, 0, 0, kLongList, 60);
  for (int content = 0; content < kLongList; ++content) {
    writer.Content(kLongService, content);
  }
}

void MeasureScale(const std::string& program, const std::string& folder) {
  WriteGuide(folder, false);
  const char* const arguments[] = {program.c_str(), "--guide", folder.c_str(),
                                   "--name",        kName,     nullptr};
  GPid service = 0;
  int output = -1;
  const auto start = Clock::now();
  bare::Require(g_spawn_async_with_pipes(nullptr, const_cast<char**>(arguments), nullptr,
                                         G_SPAWN_DEFAULT, nullptr, nullptr, &service, nullptr,
                                         &output, nullptr, nullptr) != FALSE,
                "the guide service does not start");
  char byte = 0;
  bare::Require(read(output, &byte, 1) == 1, "the guide service is not ready");
  const std::chrono::duration<double> ready = Clock::now() - start;
  std::cout << "ready " << ready.count() << "\nmemory " << PeakMemory(service);

  DBusConnection* connection = bare::Open();
  dbus_bus_add_match(connection, "type='signal',interface='com.velmora.ESG.Signal'", nullptr);
  WriteGuide(folder, true);
  std::chrono::duration<double> longest{0};
  for (bool changed = false; !changed;) {
    const auto sent = Clock::now();
    Ask(connection, "GetPresentProgram", Request(0, 1));
    longest = std::max<std::chrono::duration<double>>(longest, Clock::now() - sent);
    while (const esg::internal::MessagePtr message{dbus_connection_pop_message(connection)}) {
      const char* path = dbus_message_get_path(message.get());
      if (path != nullptr && std::string(path) == esg::internal::kSignalPath) {
        int counts[3] = {};
        bare::Payload(message.get()).copy(reinterpret_cast<char*>(counts), sizeof(counts));
        changed = counts[1] == kServices + 1;
      }
    }
  }
  std::cout << "\nnew guide's peak " << PeakMemory(service) << "\ndelay " << longest.count()
            << '\n';
  kill(service, SIGTERM);
}

}  // namespace guide
