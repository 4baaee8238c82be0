#include "Queries.h"

#include <glib.h>

#include <algorithm>
#include <string>
#include <utility>

#include "Bare.h"
#include "ESGAPI.h"
#include "ESGAsync.h"
#include "Floor.h"
#include "Guide.h"
#include "IESGService.h"
#include "Interleave.h"
#include "Others.h"

namespace {

ESGProgramMap LibraryList(unsigned int programmes) {
  ESGProgramMap list;
  bare::Require(ESGAPI::GetESGServiceAPI()->GetProgramList(guide::kServiceId, 0, programmes, list),
                "the library found nothing");
  return list;
}

/// Makes that many queries that do not block, and receives their replies.
template <typename Ask>
void LibraryLater(int count, Ask ask) {
  int found = 0;
  for (int i = 0; i < count; ++i) {
    ask([&found, count](const ESGFailure& failure, const auto& result) {
      benchmark::DoNotOptimize(result);
      found += !failure ? 1 : count + 1;
    });
  }
  while (found < count) {
    g_main_context_iteration(nullptr, TRUE);
  }
  bare::Require(found == count, "a query found nothing");
}

void LibraryListLater(unsigned int programmes) {
  LibraryLater(1, [programmes](auto callback) {
    ESGAsync::GetProgramList(guide::kServiceId, 0, programmes, callback);
  });
}

void LibraryPresentLater(int count) {
  LibraryLater(count,
               [](auto callback) { ESGAsync::GetPresentProgram(guide::kServiceId, callback); });
}

void LibraryPresent() {
  FCESGProgramInfo programme;
  bare::Require(ESGAPI::GetESGServiceAPI()->GetPresentProgram(guide::kServiceId, programme),
                "the library found nothing");
}

/// Checks that both have read the complete reply: none is faster by doing less.
bool Agree(const ESGProgramMap& library, const hand::Programmes& floor) {
  return std::equal(library.begin(), library.end(), floor.begin(), floor.end(),
                    [](const auto& left, const auto& right) {
                      const auto& extension = left.second.PrivateExt();
                      const hand::Programme& other = right.second;
                      return left.first == right.first && left.second.Title() == other.title &&
                             left.second.Synopsis() == other.synopsis &&
                             extension.contentIcons.at(0).dataSize ==
                                 other.contentIcons.at(0).dataSize &&
                             extension.previews.at(0).descriptions.at(0).text ==
                                 other.previews.at(0).descriptions.at(0).text &&
                             extension.previews.at(0).contents.at(0).uri ==
                                 other.previews.at(0).contents.at(0).uri;
                    });
}

struct Connections {
  DBusConnection* libdbus = bare::Open();
  GDBusConnection* gdbus = others::OpenGDBus();
  sd_bus* sdbus = others::OpenSdBus();
};

const Connections& Open() {
  static const Connections connections;
  return connections;
}

void Ignore(std::string_view payload) { benchmark::DoNotOptimize(payload); }

void Query(benchmark::State& state) {
  const auto programmes = static_cast<unsigned int>(state.range(0));
  const Connections& on = Open();
  const std::string request = hand::ListRequest(programmes);
  const hand::Programmes expected = hand::GetProgramList(on.libdbus, programmes);
  bare::Require(expected.size() == programmes && Agree(LibraryList(programmes), expected),
                "the library and the floor do not agree");
  const char* method = "GetProgramList";
  Interleave(state, {std::clamp(500 / static_cast<int>(programmes), 1, 100), 1},
             {{"library", [&] { LibraryList(programmes); }},
              {"later", [&] { LibraryListLater(programmes); }},
              {"floor", [&] { hand::GetProgramList(on.libdbus, programmes); }},
              {"GDBus", [&] { others::CallGDBus(on.gdbus, method, request, &Ignore); }},
              {"sd-bus", [&] { others::CallSdBus(on.sdbus, method, request, &Ignore); }},
              {"sd-bus and one parse", [&] {
                 others::CallSdBus(on.sdbus, method, request, [](std::string_view text) {
                   hand::ReadList(hand::Parse(text));
                 });
               }}});
}
BENCHMARK(Query)->Arg(1)->Arg(100)->Iterations(11)->UseRealTime();
BENCHMARK(Query)->Arg(1000)->Iterations(7)->UseRealTime();
BENCHMARK(Query)->Arg(10000)->Iterations(5)->UseRealTime();

/// The same without blocking, which may read the reply in another way.
void QueryLater(benchmark::State& state) {
  const auto programmes = static_cast<unsigned int>(state.range(0));
  const Connections& on = Open();
  const std::string request = hand::ListRequest(programmes);
  const char* method = "GetProgramList";
  Interleave(
      state, {std::clamp(1000 / static_cast<int>(programmes), 1, 100), 1},
      {{"later", [&] { LibraryListLater(programmes); }},
       {"library", [&] { LibraryList(programmes); }},
       {"libdbus", [&] { Ignore(bare::Payload(bare::Call(on.libdbus, method, request).get())); }},
       {"sd-bus and one parse", [&] {
          others::CallSdBus(on.sdbus, method, request,
                            [](std::string_view text) { hand::ReadList(hand::Parse(text)); });
        }}});
}
BENCHMARK(QueryLater)->Arg(100)->Arg(1000)->Arg(10000)->Iterations(11)->UseRealTime();

/// Time per programme of one long list against that of many shorter ones.
void Growth(benchmark::State& state, void (*query)(unsigned int programmes)) {
  constexpr unsigned int kLong = 10000;
  constexpr unsigned int kShort = 100;
  Interleave(state, {1, kLong}, {{"long", [=] { query(kLong); }}, {"short", [=] {
                                                                     for (unsigned int i = 0;
                                                                          i < kLong / kShort; ++i) {
                                                                       query(kShort);
                                                                     }
                                                                   }}});
}
BENCHMARK_CAPTURE(Growth, library, [](unsigned int programmes) { LibraryList(programmes); })
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK_CAPTURE(Growth, later, &LibraryListLater)->Iterations(7)->UseRealTime();
BENCHMARK_CAPTURE(Growth, floor,
                  [](unsigned int programmes) { hand::GetProgramList(Open().libdbus, programmes); })
    ->Iterations(3)
    ->UseRealTime();

void PresentProgram(benchmark::State& state) {
  const Connections& on = Open();
  const std::string request = hand::PresentRequest();
  const char* method = "GetPresentProgram";
  Interleave(state, {100, 1},
             {{"library", &LibraryPresent},
              {"floor", [&] { hand::GetPresentProgram(on.libdbus); }},
              {"GDBus", [&] { others::CallGDBus(on.gdbus, method, request, &Ignore); }}});
}
BENCHMARK(PresentProgram)->Iterations(11)->UseRealTime();

void PresentProgramLater(benchmark::State& state) {
  GDBusConnection* connection = Open().gdbus;
  const std::string request = hand::PresentRequest();
  Interleave(
      state, {100, 1},
      {{"later", [] { LibraryPresentLater(1); }},
       {"GDBus", [&] { others::CallGDBus(connection, "GetPresentProgram", request, &Ignore); }}});
}
BENCHMARK(PresentProgramLater)->Iterations(11)->UseRealTime();

/// The present programme of a hundred services, from one thread.
void Burst(benchmark::State& state) {
  constexpr int kServices = 100;
  const auto ask = [] { LibraryPresentLater(kServices); };
  const auto block = [] {
    for (int i = 0; i < kServices; ++i) {
      LibraryPresent();
    }
  };
  DBusConnection* connection = Open().libdbus;
  Interleave(state, {3, kServices},
             {{"library", ask},
              {"blocking", block},
              {"libdbus", [=] { hand::GetPresentPrograms(connection, kServices); }}});
}
BENCHMARK(Burst)->Iterations(15)->UseRealTime();

}  // namespace

void QueryOnce(const std::string& contender, unsigned int programmes) {
  if (contender == "library") {
    LibraryList(programmes);
  } else if (contender == "later") {
    LibraryListLater(programmes);
  } else if (contender == "sd-bus") {
    others::CallSdBus(others::OpenSdBus(), "GetProgramList", hand::ListRequest(programmes),
                      [](std::string_view text) { hand::ReadList(hand::Parse(text)); });
  } else {
    hand::GetProgramList(bare::Open(), programmes);
  }
}
