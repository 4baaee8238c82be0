#include "Guide.h"

#include <IESGService.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace esgctl {
namespace {

constexpr int kStartMilliseconds = 30000;
/// Of the queries for one result. The library's time limit counts from the query, also for one that
/// has to wait until the service has replied to those before it.
constexpr std::size_t kMostAtOnce = 32;

Failure NoBus(const std::string& why) {
  return {kAway, "The system bus cannot be reached: " + why +
                     "\nStart it, or set DBUS_SYSTEM_BUS_ADDRESS to the address of another bus."};
}

Failure NoService(const std::string& why) {
  return {kAway, "The guide service is not running: " + why +
                     "\nStart it, for example: esg-guide-service --guide DIR --today"};
}

/// Whether the service is on the bus.
bool IsThere(const esg::tools::Bus& bus) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply =
      bus.Call("NameHasOwner", g_variant_new("(s)", kESGServiceName), "(b)", &error);
  if (reply == nullptr) {
    throw NoBus(error->message);
  }
  g_autoptr(GVariant) there = g_variant_get_child_value(reply, 0);
  return g_variant_get_boolean(there) != FALSE;
}

void StartService(const esg::tools::Bus& bus) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply =
      bus.Call("StartServiceByName", g_variant_new("(su)", kESGServiceName, 0U), "(u)", &error,
               kStartMilliseconds);
  if (reply == nullptr) {
    throw NoService(g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) != FALSE
                        ? std::string("nobody owns ") + kESGServiceName + " on the bus."
                        : std::string("the bus cannot start it: ") + error->message);
  }
}

/// Why a query failed.
Failure Diagnosis(const esg::tools::Bus& bus, const ESGFailure& failure) {
  if (!IsThere(bus)) {
    return NoService("it has just gone.");
  }
  const std::string detail =
      failure.errorName.empty() ? ""
                                : "\nThe bus says: " + failure.errorName + ": " + failure.errorText;
  switch (failure.reason) {
    case ESGFailureReason::NoBus:
    case ESGFailureReason::NoService:
    case ESGFailureReason::NoAnswer:
      return {kAway, "The guide service does not respond. Is it stuck?" + detail};
    case ESGFailureReason::AccessDenied:
      return {kOther,
              "The system bus does not allow this user to query the guide service." + detail};
    case ESGFailureReason::Unreadable:
      return {kUnreadable,
              "The reply of the guide service cannot be read. Is it the right service?" + detail};
    default:
      return {kOther, ESGFailureText(failure.reason) + detail};
  }
}

/// A programme of this service as a reference to send back, or where there is none, a time.
/// Services may leave their own id out of a reply, and the record's is settable by its JSON form
/// only.
FCESGProgramInfo Reference(const Service& service, const Showing* showing, unsigned int time) {
  Json::Value value;
  FCESGProgramInfo::ToJson(showing == nullptr ? FCESGProgramInfo() : showing->program, value);
  value["globalServiceId"] = service.id;
  FCESGProgramInfo reference;
  FCESGProgramInfo::FromJson(value, reference);
  if (showing == nullptr) {
    reference.SetStartTime(time);
  }
  return reference;
}

constexpr char kBackAndClear[] = "\r\x1b[K";

/// How many replies have arrived, for a line on the terminal.
struct Progress {
  std::size_t total;
  std::size_t left;
  int seconds = 0;

  static gboolean Show(gpointer progress) {
    auto& self = *static_cast<Progress*>(progress);
    std::fprintf(stderr, "%sAsking the guide service, %zu of %zu (%d s)", kBackAndClear,
                 self.total - self.left, self.total, ++self.seconds);
    return G_SOURCE_CONTINUE;
  }
};

}  // namespace

std::unique_ptr<esg::tools::Bus> ConnectToBus() {
  try {
    return std::make_unique<esg::tools::Bus>();
  } catch (const std::runtime_error& error) {
    throw NoBus(error.what());
  }
}

esg::tools::Bus& Guide::Bus() {
  if (m_bus == nullptr) {
    m_bus = ConnectToBus();
    if (!IsThere(*m_bus)) {
      StartService(*m_bus);
    }
  }
  return *m_bus;
}

void Guide::Wait(std::size_t count, Need need, const Question<const Done&>& ask) {
  if (count == 0) {
    return;
  }
  Bus();
  Progress progress{count, count};
  ESGFailure failure;
  const Done done = [&](const ESGFailure& result) {
    --progress.left;
    const bool welcome =
        need == Need::Welcome && (result.reason == ESGFailureReason::ServiceError ||
                                  result.reason == ESGFailureReason::Unreadable);
    if (result && !failure && result.reason != ESGFailureReason::NotFound && !welcome) {
      failure = result;
    }
  };
  std::vector<ESGAsync::Identifier> queries;
  queries.reserve(count);
  const guint timer =
      isatty(STDERR_FILENO) != 0 ? g_timeout_add_seconds(1, Progress::Show, &progress) : 0;
  while (progress.left > 0 && !failure && !m_stopped) {
    while (queries.size() < count && queries.size() - (count - progress.left) < kMostAtOnce) {
      queries.push_back(ask(queries.size(), done));
    }
    g_main_context_iteration(nullptr, TRUE);
  }
  if (timer != 0) {
    g_source_remove(timer);
    std::fputs(progress.seconds > 0 ? kBackAndClear : "", stderr);
  }
  if (progress.left > 0) {
    std::for_each(queries.begin(), queries.end(), ESGAsync::Cancel);
  }
  if (failure) {
    throw Diagnosis(*m_bus, failure);
  }
  if (progress.left > 0) {
    throw Failure(kAway, "interrupted");
  }
}

Showing Guide::MakeShowing(const Service& service, FCESGProgramInfo program) const {
  const Seconds start = m_clock.FromRecord(program.GetStartTime());
  const Seconds end = start + static_cast<Seconds>(program.Duration());
  return {&service, std::move(program), start, end};
}

Listings Guide::Programmes(const std::vector<Service>& services,
                           const Question<ESGAsync::ProgramCallback>& question, Need need) {
  auto programs = Ask<FCESGProgramInfo>(services.size(), question, need);
  Listings listings;
  for (std::size_t i = 0; i < services.size(); ++i) {
    Listing& listing = listings.emplace_back(Listing{&services[i], {}});
    if (programs[i]) {
      listing.showings.push_back(MakeShowing(services[i], std::move(*programs[i])));
    }
  }
  return listings;
}

Listings Guide::Around(const std::vector<Service>& services, std::optional<Seconds> time,
                       eRelative_Position position) {
  const auto present = [&](std::size_t i, ESGAsync::ProgramCallback done) {
    return ESGAsync::GetPresentProgram(services[i].id, std::move(done));
  };
  Listings on = time ? Lists(services, {*time, *time + 1}) : Programmes(services, present);
  if (position == eRelative_Position_Current) {
    return on;
  }
  const unsigned int start = m_clock.ToRecord(time.value_or(m_clock.Now()));
  return Programmes(services, [&](std::size_t i, ESGAsync::ProgramCallback done) {
    const Showing* const showing = on[i].showings.empty() ? nullptr : &on[i].showings.back();
    return ESGAsync::GetProgram(Reference(services[i], showing, start), position, std::move(done));
  });
}

Listings Guide::Lists(const std::vector<Service>& services, const TimeRange& range,
                      const Wanted& wanted) {
  const std::vector<TimeRange> pieces = Pieces(m_clock, range);
  auto lists = Ask<ESGProgramMap>(services.size() * pieces.size(), [&](std::size_t i, auto done) {
    const auto& [from, to] = pieces[i % pieces.size()];
    return ESGAsync::GetProgramList(services[i / pieces.size()].id, m_clock.ToRecord(from),
                                    static_cast<unsigned int>(to - from), std::move(done));
  });
  auto list = lists.begin();
  Listings listings;
  for (const Service& service : services) {
    // A programme that touches two pieces comes twice, under one key.
    ESGProgramMap byKey;
    for (std::size_t i = 0; i < pieces.size(); ++i, ++list) {
      if (*list) {
        byKey.merge(**list);
      }
    }
    std::vector<Showing>& showings = listings.emplace_back(Listing{&service, {}}).showings;
    for (auto& [key, program] : byKey) {
      if (!wanted || wanted(program)) {
        showings.push_back(MakeShowing(service, std::move(program)));
      }
    }
    std::stable_sort(showings.begin(), showings.end(),
                     [](const Showing& a, const Showing& b) { return a.start < b.start; });
  }
  return listings;
}

bool Guide::Complete(std::vector<Service>& services) {
  std::vector<Service*> incomplete;
  for (Service& service : services) {
    if (!service.IsComplete()) {
      incomplete.push_back(&service);
    }
  }
  const std::vector<Json::Value> facts = ServiceFacts({incomplete.begin(), incomplete.end()});
  for (std::size_t i = 0; i < incomplete.size(); ++i) {
    incomplete[i]->Complete(facts[i]);
  }
  return !incomplete.empty();
}

std::vector<Json::Value> Guide::AskFacts(std::size_t count,
                                         const Question<ESGAsync::FragmentCallback>& question) {
  std::vector<Json::Value> facts;
  for (const auto& text : Ask<std::string>(count, question, Need::Welcome)) {
    facts.push_back(ParseFacts(text.value_or("")));
  }
  return facts;
}

std::vector<Json::Value> Guide::ServiceFacts(const std::vector<const Service*>& services) {
  return AskFacts(services.size(), [&](std::size_t i, ESGAsync::FragmentCallback done) {
    return ESGAsync::GetServiceFragment(services[i]->id, false, std::move(done));
  });
}

Facts Guide::FactsOf(const Listings& listings) {
  Facts facts;
  std::vector<const Service*> services;
  std::vector<const Showing*> showings;
  for (const Listing& listing : listings) {
    services.push_back(listing.service);
    for (const Showing& showing : listing.showings) {
      if (facts.contents.try_emplace(showing.program.GetEventID()).second) {
        showings.push_back(&showing);
      }
    }
  }
  facts.services = ServiceFacts(services);
  const auto question = [&](std::size_t i, ESGAsync::FragmentCallback done) {
    const auto& [service, program, start, end] = *showings[i];
    return ESGAsync::GetContentFragment(service->id, program.GetStartTime(), program.Duration(),
                                        false, std::move(done));
  };
  for (const Json::Value& content : AskFacts(showings.size(), question)) {
    // A time may be that of several programmes: the id tells which one this is about.
    const auto asked = facts.contents.find(content["id"].asString());
    if (asked != facts.contents.end()) {
      asked->second = content;
    }
  }
  return facts;
}

Failure Guide::Explain(const std::string& what, const Service& service, const TimeRange& range) {
  const bool known = !ServiceFacts({&service}).front().isNull();
  const std::vector<Service> services(2, service);
  const auto question = [&](std::size_t i, ESGAsync::ProgramCallback done) {
    const Seconds time = i == 0 ? range.from : range.to - 1;
    return ESGAsync::GetProgram(Reference(service, nullptr, m_clock.ToRecord(time)),
                                i == 0 ? eRelative_Position_Previous : eRelative_Position_Next,
                                std::move(done));
  };
  const Listings beside = Programmes(services, question, Need::Welcome);
  const std::vector<Showing>& before = beside[0].showings;
  const std::vector<Showing>& after = beside[1].showings;
  const std::string guide = "The guide of " + service.Label();
  std::string message = what + '\n';
  if (!after.empty()) {
    message += guide +
               (before.empty() ? " starts only at " : " has a gap there; it continues at ") +
               FormatDateTime(after[0].start) + " with: " + after[0].program.Title();
  } else if (!before.empty()) {
    const Seconds end = before[0].end;
    message += guide + (end > m_clock.Now() ? " ends at " + FormatDateTime(end) + '.'
                                            : " ended at " + FormatDateTime(end) +
                                                  ". Does the guide service get a current guide?");
  } else if (known) {
    message += guide + " has no programmes.";
  } else {
    message += "The guide service does not know " + service.id +
               ".\nTo list the services, run: esgctl services";
  }
  return {kNotFound, message};
}

}  // namespace esgctl
