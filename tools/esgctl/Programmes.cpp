// now, next, prev, list, grid, search: the programmes of some services

#include <glib.h>
#include <json/value.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "Grid.h"
#include "Json.h"
#include "Look.h"
#include "Text.h"

namespace esgctl {
namespace {

constexpr Seconds kHalfHour = kHour / 2;

/// A view of one programme on each service.
View ViewOfOne(Session& session, const char* nothing) {
  View view(session);
  view.nothing = nothing;
  view.show = [&session](const Listings& listings, const TimeRange&) {
    return Written(AllOf(listings), session, true);
  };
  return view;
}

int LookBeside(Session& session, eRelative_Position position, const char* nothing) {
  const std::string& of = session.request.of;
  View view = ViewOfOne(session, nothing);
  view.range = [&] {
    const Seconds now = session.clock.Now();
    const Seconds time = of.empty() ? now : ParseMoment(of, now).time;
    session.clock.ToRecord(time);
    return TimeRange{time, time + 1};
  };
  view.ask = [&](const std::vector<Service>& services, const TimeRange& range) {
    return session.guide.Neighbours(
        services, of.empty() ? std::nullopt : std::make_optional(range.from), position);
  };
  return Look(session, view);
}

/// Whether a text without accents has something in it; case does not count.
class Pattern {
 public:
  Pattern(const std::string& written, bool regex, bool word) {
    const std::string plain = WithoutAccents(written);
    g_autofree char* escaped = g_regex_escape_string(plain.c_str(), -1);
    std::string text = regex ? plain : escaped;
    if (word) {
      text = "(?<!\\w)(?:" + text + ")(?!\\w)";
    }
    g_autoptr(GError) error = nullptr;
    m_regex.reset(g_regex_new(text.c_str(),
                              static_cast<GRegexCompileFlags>(G_REGEX_CASELESS | G_REGEX_OPTIMIZE),
                              static_cast<GRegexMatchFlags>(0), &error));
    if (m_regex == nullptr) {
      throw Failure(kUsage, "\"" + written + "\" is not a regular expression: " + error->message);
    }
  }

  bool IsIn(const std::string& text) const {
    return g_regex_match(m_regex.get(), text.c_str(), static_cast<GRegexMatchFlags>(0), nullptr) !=
           FALSE;
  }

 private:
  struct Release {
    void operator()(GRegex* regex) const { g_regex_unref(regex); }
  };
  std::unique_ptr<GRegex, Release> m_regex;
};

}  // namespace

int RunNow(Session& session) {
  View view = ViewOfOne(session, "Nothing is on now");
  view.range = [&] { return TimeRange{session.clock.Now(), session.clock.Now() + 1}; };
  view.ask = [&](const std::vector<Service>& services, const TimeRange&) {
    return session.guide.Present(services);
  };
  return Look(session, view);
}

int RunNext(Session& session) {
  return LookBeside(session, eRelative_Position_Next, "Nothing comes next");
}

int RunPrevious(Session& session) {
  return LookBeside(session, eRelative_Position_Previous, "Nothing was on before");
}

int RunList(Session& session) { return Look(session, View(session)); }

int RunGrid(Session& session) {
  const Request& request = session.request;
  View view(session);
  view.range = [&] {
    TimeRange range = session.Range(3 * kHour);
    // The whole half hour, so that what is on now is seen from its start more often than not.
    if (request.from.empty()) {
      const Seconds back = range.from % kHalfHour;
      range.from -= back;
      range.to -= request.to.empty() ? back : 0;
    }
    return range;
  };
  view.show = [&](const Listings& listings, const TimeRange& range) {
    return request.json ? JsonText(ListingsToJson(listings))
                        : RenderGrid(listings, range, session.clock.Now(), GridStyle(request));
  };
  return Look(session, view);
}

int RunSearch(Session& session) {
  const Request& request = session.request;
  std::vector<Pattern> words;
  for (const std::string& word : request.words) {
    words.emplace_back(word, request.regex, request.word);
  }
  const Pattern genre(request.genre, false, false);
  const auto fits = [&](const FCESGProgramInfo& program) {
    const std::string text = WithoutAccents(
        request.title ? program.Title() : program.Title() + '\n' + program.Synopsis());
    return genre.IsIn(WithoutAccents(program.Genre())) &&
           std::all_of(words.begin(), words.end(),
                       [&](const Pattern& word) { return word.IsIn(text); });
  };
  View view(session);
  view.nothing = "There is no match";
  view.range = [&] {
    const bool usual = request.from.empty() && request.to.empty() && request.length.empty();
    const Seconds now = session.clock.Now();
    return usual ? TimeRange{now - kDay, now + 2 * kWeek} : session.Range(15 * kDay);
  };
  view.ask = [&](const std::vector<Service>& services, const TimeRange& range) {
    Listings listings = session.guide.Lists(services, range);
    for (auto& [service, all] : listings) {
      all.erase(std::remove_if(all.begin(), all.end(),
                               [&](const Showing& showing) { return !fits(showing.program); }),
                all.end());
    }
    return listings;
  };
  view.show = [&](const Listings& listings, const TimeRange&) {
    Showings hits = AllOf(listings);
    // What is on or comes first, by time; then what is over.
    const auto order = [now = session.clock.Now()](const Showing* showing) {
      return std::make_pair(showing->end <= now, showing->start);
    };
    std::stable_sort(hits.begin(), hits.end(),
                     [&](const Showing* a, const Showing* b) { return order(a) < order(b); });
    return Written(hits, session);
  };
  return Look(session, view);
}

}  // namespace esgctl
