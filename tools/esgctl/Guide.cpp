#include "Guide.h"

#include <IESGService.h>
#include <json/value.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <stdexcept>

#include "Fragments.h"
#include "Output.h"
#include "Text.h"

namespace esgctl {
namespace {

constexpr int kStartMilliseconds = 30000;

Failure NoBus(const std::string& why) {
  return {kAway, "The system bus cannot be reached: " + why +
                     "\nStart it, or set DBUS_SYSTEM_BUS_ADDRESS to the one to use."};
}

Failure NoService(const std::string& why) {
  return {kAway, "The guide service is not running: " + why +
                     "\nStart it, for example: esg-guide-service --guide DIR --today"};
}

/// Whether the service is on the bus; no answer if the bus does not give one.
std::optional<bool> IsThere(const esg::tools::Bus& bus, GError** error) {
  g_autoptr(GVariant) reply =
      bus.Call("NameHasOwner", g_variant_new("(s)", kESGServiceName), "(b)", error);
  if (reply == nullptr) {
    return std::nullopt;
  }
  gboolean there = FALSE;
  g_variant_get(reply, "(b)", &there);
  return there != FALSE;
}

/// A programme of this service as a reference to send back. Services may leave their own id out of
/// an answer, and the record's is settable by its JSON form only.
FCESGProgramInfo Reference(const FCESGProgramInfo& program, const std::string& service) {
  Json::Value value;
  FCESGProgramInfo::ToJson(program, value);
  value["globalServiceId"] = service;
  FCESGProgramInfo reference;
  FCESGProgramInfo::FromJson(value, reference);
  return reference;
}

/// A line on the terminal that shows how many answers have arrived, after a second.
class Progress {
 public:
  Progress(std::size_t total, const std::size_t& left) : m_total(total), m_left(left) {
    if (isatty(STDERR_FILENO) != 0) {
      m_timer = g_timeout_add_seconds(
          1,
          [](gpointer progress) -> gboolean {
            static_cast<Progress*>(progress)->Show();
            return G_SOURCE_CONTINUE;
          },
          this);
    }
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress() {
    if (m_timer != 0) {
      g_source_remove(m_timer);
    }
    if (m_seconds > 0) {
      std::fputs(kBackAndClear, stderr);
    }
  }

 private:
  static constexpr const char* kBackAndClear = "\r\x1b[K";

  void Show() {
    std::string text = "Asking the guide service";
    if (m_total > 1) {
      text += ", " + std::to_string(m_total - m_left) + " of " + std::to_string(m_total);
    }
    const std::string elapsed = " (" + std::to_string(++m_seconds) + " s)";
    // One row, or the next line could not take its place.
    const int room = TerminalWidth(STDERR_FILENO) - 1 - DisplayWidth(elapsed);
    std::fputs((kBackAndClear + Cut(text, room) + elapsed).c_str(), stderr);
  }

  const std::size_t m_total;
  const std::size_t& m_left;
  guint m_timer = 0;
  int m_seconds = 0;
};

}  // namespace

esg::tools::Bus ConnectToBus() {
  try {
    return esg::tools::Bus();
  } catch (const std::runtime_error& error) {
    throw NoBus(error.what());
  }
}

Guide::Guide(const Clock& clock) : m_clock(clock), m_bus(ConnectToBus()) { RequireService(); }

void Guide::RequireService() const {
  g_autoptr(GError) error = nullptr;
  const std::optional<bool> there = IsThere(m_bus, &error);
  if (!there) {
    throw NoBus(error->message);
  }
  if (*there) {
    return;
  }
  g_autoptr(GVariant) started =
      m_bus.Call("StartServiceByName", g_variant_new("(su)", kESGServiceName, 0U), "(u)", &error,
                 kStartMilliseconds);
  if (started == nullptr) {
    throw NoService(g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) != FALSE
                        ? std::string("nobody owns ") + kESGServiceName + " on the bus."
                        : std::string("the bus cannot start it: ") + error->message);
  }
}

Failure Guide::Diagnosis(const ESGFailure& failure) const {
  g_autoptr(GError) error = nullptr;
  const std::optional<bool> there = IsThere(m_bus, &error);
  if (!there) {
    return NoBus(error->message);
  }
  if (!*there) {
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
      return {kOther, "The system bus does not let this user ask the guide service." + detail};
    case ESGFailureReason::Unreadable:
      return {kUnreadable,
              "The answer of the guide service cannot be read. Is it the right service?" + detail};
    default:
      return {kOther, ESGFailureText(failure.reason) + detail};
  }
}

void Guide::Wait(std::size_t count,
                 const std::function<ESGAsync::Identifier(std::size_t, const Done&)>& ask,
                 Need need) {
  std::size_t left = count;
  ESGFailure failure;
  const Done done = [&](const ESGFailure& result) {
    --left;
    const bool welcome =
        need == Need::Welcome && (result.reason == ESGFailureReason::ServiceError ||
                                  result.reason == ESGFailureReason::Unreadable);
    if (result && !failure && result.reason != ESGFailureReason::NotFound && !welcome) {
      failure = result;
    }
  };
  std::vector<ESGAsync::Identifier> questions;
  questions.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    questions.push_back(ask(i, done));
  }
  const Progress progress(count, left);
  while (left > 0 && !failure) {
    g_main_context_iteration(nullptr, TRUE);
  }
  if (failure) {
    for (const ESGAsync::Identifier question : questions) {
      ESGAsync::Cancel(question);
    }
    throw Diagnosis(failure);
  }
}

std::vector<std::optional<FCESGProgramInfo>> Guide::Present(
    const std::vector<std::string>& services) {
  return Ask<FCESGProgramInfo>(services.size(), [&](std::size_t i, ESGAsync::ProgramCallback done) {
    return ESGAsync::GetPresentProgram(services[i], std::move(done));
  });
}

std::vector<std::optional<FCESGProgramInfo>> Guide::Neighbours(
    const std::vector<std::string>& services, std::optional<Seconds> time,
    eRelative_Position position) {
  std::vector<std::optional<FCESGProgramInfo>> there;
  if (time) {
    for (const Programs& programs : Lists(services, {*time, *time + 1})) {
      there.push_back(programs.empty() ? std::nullopt : std::make_optional(programs.back()));
    }
  } else {
    there = Present(services);
  }
  for (auto& program : there) {
    if (!program) {
      program.emplace().SetStartTime(m_clock.ToRecord(time.value_or(m_clock.Now())));
    }
  }
  return Ask<FCESGProgramInfo>(services.size(), [&](std::size_t i, ESGAsync::ProgramCallback done) {
    return ESGAsync::GetProgram(Reference(*there[i], services[i]), position, std::move(done));
  });
}

std::vector<Programs> Guide::Lists(const std::vector<std::string>& services,
                                   const TimeRange& range) {
  const std::vector<Piece> pieces = Pieces(m_clock, range);
  auto answers = Ask<ESGProgramMap>(
      services.size() * pieces.size(), [&](std::size_t i, ESGAsync::ProgramListCallback done) {
        const Piece& piece = pieces[i % pieces.size()];
        return ESGAsync::GetProgramList(services[i / pieces.size()], piece.start, piece.duration,
                                        std::move(done));
      });
  std::vector<Programs> lists;
  for (std::size_t service = 0; service < services.size(); ++service) {
    // A programme that touches two pieces comes twice, under one key.
    ESGProgramMap byKey;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
      if (auto& answer = answers[service * pieces.size() + i]) {
        byKey.merge(*answer);
      }
    }
    Programs& programs = lists.emplace_back();
    for (auto& entry : byKey) {
      programs.push_back(std::move(entry.second));
    }
    std::stable_sort(programs.begin(), programs.end(), [this](const auto& a, const auto& b) {
      return m_clock.FromRecord(a.GetStartTime()) < m_clock.FromRecord(b.GetStartTime());
    });
  }
  return lists;
}

bool Guide::Complete(std::vector<Service>& services) {
  std::vector<Service*> incomplete;
  for (Service& service : services) {
    if (service.number.empty() || service.name.empty()) {
      incomplete.push_back(&service);
    }
  }
  std::vector<std::string> ids;
  std::transform(incomplete.begin(), incomplete.end(), std::back_inserter(ids),
                 [](const Service* service) { return service->id; });
  const std::vector<std::string> fragments = ServiceFragments(ids);
  for (std::size_t i = 0; i < incomplete.size(); ++i) {
    incomplete[i]->Complete(ParseFacts(fragments[i]));
  }
  return !incomplete.empty();
}

template <typename Question>
std::vector<std::string> Guide::Fragments(std::size_t count, Question question) {
  std::vector<std::string> texts;
  texts.reserve(count);
  for (auto& text : Ask<std::string>(count, question, Need::Welcome)) {
    texts.push_back(std::move(text).value_or(""));
  }
  return texts;
}

std::vector<std::string> Guide::ServiceFragments(const std::vector<std::string>& services) {
  return Fragments(services.size(), [&](std::size_t i, ESGAsync::FragmentCallback done) {
    return ESGAsync::GetServiceFragment(services[i], false, std::move(done));
  });
}

std::vector<std::string> Guide::ContentFragments(const std::vector<Showing>& showings) {
  return Fragments(showings.size(), [&](std::size_t i, ESGAsync::FragmentCallback done) {
    const auto& [service, program] = showings[i];
    return ESGAsync::GetContentFragment(service, program.GetStartTime(), program.Duration(), false,
                                        std::move(done));
  });
}

Failure Guide::Explain(const std::string& what, const Service& service, const TimeRange& range) {
  const bool known = !ServiceFragments({service.id}).front().empty();
  const auto beside = Ask<FCESGProgramInfo>(
      2,
      [&](std::size_t i, ESGAsync::ProgramCallback done) {
        FCESGProgramInfo reference;
        reference.SetStartTime(m_clock.ToRecord(i == 0 ? range.from : range.to - 1));
        return ESGAsync::GetProgram(Reference(reference, service.id),
                                    i == 0 ? eRelative_Position_Previous : eRelative_Position_Next,
                                    std::move(done));
      },
      Need::Welcome);
  std::string message = what + " on " + service.Label() + ".\n";
  if (beside[1]) {
    const Seconds start = m_clock.FromRecord(beside[1]->GetStartTime());
    message += (beside[0] ? "The guide has a gap there; it continues at "
                          : "The guide of this service starts only at ") +
               FormatDateTime(start) + " with: " + beside[1]->Title();
  } else if (beside[0]) {
    const Seconds end = m_clock.FromRecord(beside[0]->GetStartTime()) + beside[0]->Duration();
    message += "The guide of this service ended at " + FormatDateTime(end) +
               ". Does the guide service get a current guide?";
  } else if (known) {
    message += "The guide has this service, but no programmes of it.";
  } else {
    message += "The guide service does not know " + service.id +
               ".\nServices that can be named are shown by: esgctl services";
  }
  return {kNotFound, message};
}

}  // namespace esgctl
