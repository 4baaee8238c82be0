// now, next, prev, list, grid, search: the programmes of some services

#include <glib.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "Commands.h"

namespace esgctl {
namespace {

constexpr Seconds kHalfHour = kHour / 2;

/// Finds something in texts without accents; case does not count.
using Pattern = std::shared_ptr<GRegex>;

Pattern Compile(const std::string& written, bool regex, bool word) {
  const std::string plain = WithoutAccents(written);
  g_autofree char* escaped = g_regex_escape_string(plain.c_str(), -1);
  std::string text = regex ? plain : escaped;
  if (word) {
    text = "(?<!\\w)(?:" + text + ")(?!\\w)";
  }
  g_autoptr(GError) error = nullptr;
  GRegex* const compiled = g_regex_new(
      text.c_str(), static_cast<GRegexCompileFlags>(G_REGEX_CASELESS | G_REGEX_OPTIMIZE),
      static_cast<GRegexMatchFlags>(0), &error);
  if (compiled == nullptr) {
    throw Failure(kUsage, "\"" + written + "\" is not a regular expression: " + error->message);
  }
  return {compiled, g_regex_unref};
}

bool IsIn(const std::string& text, const Pattern& pattern) {
  return g_regex_match(pattern.get(), text.c_str(), static_cast<GRegexMatchFlags>(0), nullptr) !=
         FALSE;
}

}  // namespace

std::function<void(Session&)> RunOne(eRelative_Position position, const char* nothing) {
  return [=](Session& session) {
    const std::string& of = session.request.of;
    View view;
    view.nothing = nothing;
    view.single = true;
    view.range = [&] {
      const Seconds now = session.clock.Now();
      const Seconds time = of.empty() ? now : ParseMoment(of, now).time;
      session.clock.ToRecord(time);
      return TimeRange{time, time + 1};
    };
    view.ask = [&](const std::vector<Service>& services, const TimeRange& range) {
      const auto time = of.empty() ? std::nullopt : std::make_optional(range.from);
      return session.guide.Around(services, time, position);
    };
    Look(session, view);
  };
}

void RunList(Session& session) { Look(session, {}); }

void RunGrid(Session& session) {
  const Request& request = session.request;
  View view;
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
  Look(session, view);
}

void RunSearch(Session& session) {
  const Request& request = session.request;
  if (request.words.empty() && request.genre.empty()) {
    throw Failure(kUsage, "WORD or --genre is required.\nSee esgctl --help.");
  }
  std::vector<Pattern> words;
  for (const std::string& word : request.words) {
    words.push_back(Compile(word, request.regex, request.word));
  }
  const Pattern genre = Compile(request.genre, false, false);
  const auto fits = [&](const FCESGProgramInfo& program) {
    const std::string text = WithoutAccents(
        request.title ? program.Title() : program.Title() + '\n' + program.Synopsis());
    return IsIn(WithoutAccents(program.Genre()), genre) &&
           std::all_of(words.begin(), words.end(),
                       [&](const Pattern& word) { return IsIn(text, word); });
  };
  View view;
  view.nothing = "There is no match";
  view.explains = false;
  view.range = [&] {
    const bool usual = request.from.empty() && request.to.empty() && request.length.empty();
    const Seconds now = session.clock.Now();
    return usual ? TimeRange{now - kDay, now + 2 * kWeek} : session.Range(15 * kDay);
  };
  view.ask = [&](const std::vector<Service>& services, const TimeRange& range) {
    return session.guide.Lists(services, range, fits);
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
  Look(session, view);
}

}  // namespace esgctl
