// export xmltv, export html

#include <algorithm>
#include <cctype>
#include <map>
#include <pugixml.hpp>
#include <set>
#include <sstream>

#include "Commands.h"
#include "Fragments.h"
#include "PageHtml.h"
#include "Text.h"

namespace esgctl {
namespace {

constexpr Seconds kHour = 3600;
constexpr Seconds kDay = 24 * kHour;
constexpr Seconds kWeek = 7 * kDay;
constexpr Seconds kEvening = 6 * kHour;
constexpr char kXmltvTime[] = "%Y%m%d%H%M%S %z";

/// Adds an element whose text has only characters that XML allows.
pugi::xml_node AddText(pugi::xml_node parent, const char* name, const std::string& text) {
  pugi::xml_node node = parent.append_child(name);
  node.text().set(Printable(text).c_str());
  return node;
}

void AddAttribute(pugi::xml_node node, const char* name, const std::string& value) {
  if (!value.empty()) {
    node.append_attribute(name).set_value(Printable(value).c_str());
  }
}

/// A name for each service in the form that XMLTV wants: words of letters, digits and hyphens, with
/// dots between them.
std::vector<std::string> ChannelIds(const std::vector<Service>& services) {
  std::vector<std::string> ids;
  std::set<std::string> taken;
  for (const Service& service : services) {
    std::string id;
    for (const char c : service.id) {
      if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-') {
        id += c;
      } else if (!id.empty() && id.back() != '.') {
        id += '.';
      }
    }
    id += id.empty() || id.back() != '.' ? ".esg" : "esg";
    id.insert(0, id[0] == '.' ? "service" : "");
    for (int i = 2; !taken.insert(id).second; ++i) {
      id = id.substr(0, id.rfind(".esg")) + ".esg" + std::to_string(i);
    }
    ids.push_back(std::move(id));
  }
  return ids;
}

/// The facts of all contents, each asked for once.
std::map<std::string, Facts> ContentFacts(Guide& guide, const std::vector<Service>& services,
                                          const std::vector<Programs>& lists) {
  std::map<std::string, Facts> facts;
  std::vector<Guide::Showing> showings;
  for (std::size_t i = 0; i < services.size(); ++i) {
    for (const FCESGProgramInfo& program : lists[i]) {
      if (facts.try_emplace(program.GetEventID()).second) {
        showings.push_back({services[i].id, program});
      }
    }
  }
  for (const std::string& text : guide.ContentFragments(showings)) {
    Facts content = ParseFacts(text);
    const auto asked = facts.find(content.id);
    if (asked != facts.end()) {
      asked->second = std::move(content);
    }
  }
  return facts;
}

/// The record's own text first, then those in other languages.
void AddTexts(pugi::xml_node node, const char* name, const std::string& first,
              const std::vector<LanguageText>& texts) {
  const auto own = std::find_if(texts.begin(), texts.end(),
                                [&](const LanguageText& text) { return text.text == first; });
  if (!first.empty()) {
    AddAttribute(AddText(node, name, first), "lang", own == texts.end() ? "" : own->language);
  }
  for (const LanguageText& text : texts) {
    if (text.text != first) {
      AddAttribute(AddText(node, name, text.text), "lang", text.language);
    }
  }
}

void AddProgramme(pugi::xml_node tv, const std::string& channel, const FCESGProgramInfo& program,
                  const Facts& content, const Facts& service, const Clock& clock) {
  const Seconds start = clock.FromRecord(program.GetStartTime());
  pugi::xml_node node = tv.append_child("programme");
  AddAttribute(node, "start", FormatTime(start, kXmltvTime));
  if (program.Duration() > 0) {
    AddAttribute(node, "stop", FormatTime(start + program.Duration(), kXmltvTime));
  }
  AddAttribute(node, "channel", channel);
  AddTexts(node, "title", program.Title().empty() ? "Untitled" : program.Title(), content.names);
  AddTexts(node, "desc", program.Synopsis(), content.descriptions);
  std::istringstream genres(program.Genre());
  for (std::string genre; std::getline(genres, genre, ',');) {
    AddText(node, "category", std::string(Trimmed(genre)));
  }
  const auto& audio =
      content.audioLanguages.empty() ? service.audioLanguages : content.audioLanguages;
  if (!audio.empty()) {
    AddText(node, "language", audio.front());
  }
  for (const auto& icon : program.PrivateExt().contentIcons) {
    if (!icon.uri.empty()) {
      AddAttribute(node.append_child("icon"), "src", icon.uri);
    }
  }
  const Episode episode = EpisodeOf(program.GetEventID());
  if (!episode.series.empty()) {
    AddAttribute(AddText(node, "episode-num", episode.series + '.' + episode.number), "system",
                 "dd_progid");
  }
  const auto& subtitles =
      content.textLanguages.empty() ? service.textLanguages : content.textLanguages;
  for (const std::string& language : subtitles) {
    AddText(node.append_child("subtitles"), "language", language);
  }
  for (const Rating& rating : content.ratings) {
    pugi::xml_node rated = node.append_child("rating");
    AddAttribute(rated, "system", rating.system);
    AddText(rated, "value", rating.value);
  }
}

std::string Xmltv(Guide& guide, const std::vector<Service>& services,
                  const std::vector<Programs>& lists, const Clock& clock) {
  pugi::xml_document document;
  document.append_child(pugi::node_declaration).append_attribute("version").set_value("1.0");
  document.first_child().append_attribute("encoding").set_value("UTF-8");
  document.append_child(pugi::node_doctype).set_value("tv SYSTEM \"xmltv.dtd\"");
  pugi::xml_node tv = document.append_child("tv");
  AddAttribute(tv, "generator-info-name", "esgctl");
  const std::vector<std::string> ids = ChannelIds(services);
  std::vector<Facts> facts;
  for (const std::string& fragment : guide.ServiceFragments(Ids(services))) {
    facts.push_back(ParseFacts(fragment));
  }
  for (std::size_t i = 0; i < services.size(); ++i) {
    pugi::xml_node channel = tv.append_child("channel");
    AddAttribute(channel, "id", ids[i]);
    AddTexts(channel, "display-name", services[i].Label(), facts[i].names);
    if (!services[i].number.empty()) {
      AddText(channel, "display-name", services[i].number);
    }
    for (const std::string& icon : facts[i].icons) {
      AddAttribute(channel.append_child("icon"), "src", icon);
    }
  }
  const std::map<std::string, Facts> contents = ContentFacts(guide, services, lists);
  for (std::size_t i = 0; i < services.size(); ++i) {
    for (const FCESGProgramInfo& program : lists[i]) {
      AddProgramme(tv, ids[i], program, contents.at(program.GetEventID()), facts[i], clock);
    }
  }
  std::ostringstream text;
  document.save(text, "  ", pugi::format_indent, pugi::encoding_utf8);
  return text.str();
}

/// The place of something on the page, in minutes.
std::string Place(Seconds from, Seconds to, const TimeRange& range) {
  const Seconds start = std::clamp(from, range.from, range.to) - range.from;
  const Seconds end = std::clamp(to, range.from, range.to) - range.from;
  return "--s:" + std::to_string(start / 60) + ";--d:" + std::to_string((end - start) / 60);
}

void AddCell(pugi::xml_node row, const FCESGProgramInfo& program, const TimeRange& range,
             const Clock& clock) {
  const Seconds start = clock.FromRecord(program.GetStartTime());
  const Seconds end = start + program.Duration();
  pugi::xml_node cell = row.append_child("li");
  AddAttribute(cell, "style", Place(start, end, range));
  AddAttribute(cell, "data-start", std::to_string(start));
  AddAttribute(cell, "data-end", std::to_string(end));
  pugi::xml_node button = cell.append_child("button");
  AddAttribute(button, "type", "button");
  AddText(button, "time", FormatTimeOfDay(start));
  AddText(button, "bdi", program.Title());
  pugi::xml_node details = cell.append_child("div");
  details.append_attribute("hidden").set_value("");
  AddText(details, "p",
          FormatTime(start, "%A ") + FormatDateTime(start) + " \u2013 " + FormatTimeOfDay(end));
  AddAttribute(AddText(details, "p", program.Synopsis()), "dir", "auto");
  AddText(details, "p", program.Genre());
}

std::string Page(const std::vector<Service>& services, const std::vector<Programs>& lists,
                 const TimeRange& range, const Clock& clock) {
  pugi::xml_document document;
  AddText(
      document.root(), "h1",
      FormatTime(range.from, "%A, %-d %B %Y, %H:%M") + " \u2013 " + FormatTime(range.to, "%H:%M"));
  pugi::xml_node guide = document.append_child("div");
  AddAttribute(guide, "id", "guide");
  AddAttribute(guide, "style", "--m:" + std::to_string((range.to - range.from) / 60));
  AddAttribute(guide, "data-from", std::to_string(range.from));
  AddAttribute(guide, "data-to", std::to_string(range.to));
  pugi::xml_node times = guide.append_child("ol");
  AddAttribute(times, "id", "times");
  AddAttribute(times, "aria-hidden", "true");
  for (Seconds time = range.from; time < range.to; time += kHour / 2) {
    AddAttribute(AddText(times, "li", FormatTimeOfDay(time)), "style",
                 Place(time, time + kHour / 2, range));
  }
  for (std::size_t i = 0; i < services.size(); ++i) {
    pugi::xml_node section = guide.append_child("section");
    pugi::xml_node heading = section.append_child("h2");
    AddText(heading, "small", services[i].number);
    AddText(heading, "bdi", services[i].Label());
    pugi::xml_node row = section.append_child("ol");
    for (const FCESGProgramInfo& program : lists[i]) {
      AddCell(row, program, range, clock);
    }
  }
  std::ostringstream text;
  document.save(text, "",
                pugi::format_raw | pugi::format_no_declaration | pugi::format_no_empty_element_tags,
                pugi::encoding_utf8);
  constexpr std::string_view kMark = "{GUIDE}";
  const std::size_t mark = kPageHtml.find(kMark);
  return std::string(kPageHtml.substr(0, mark))
      .append(text.str())
      .append(kPageHtml.substr(mark + kMark.size()));
}

/// This evening; once it has started, the hours from now.
TimeRange Evening(const Session& session, const Clock& clock) {
  TimeRange range = session.Range(kEvening, clock);
  if (session.request.from.empty()) {
    const Seconds evening = ParseMoment("18:00", clock.Now()).time;
    const Seconds from = std::max(evening, range.from - range.from % (kHour / 2));
    range.to = session.request.to.empty() ? from + range.to - range.from : range.to;
    range.from = std::min(from, range.to - kHour / 2);
  }
  return range;
}

}  // namespace

int RunExport(Session& session) {
  const Clock clock = session.MakeClock();
  const bool page = session.request.format == "html";
  session.ChosenServices();  // wrong usage comes first
  const TimeRange range = page ? Evening(session, clock) : session.Range(kWeek, clock);
  Guide guide(clock);
  const std::vector<Service> services = session.ChosenServices(guide);
  const std::vector<Programs> lists = guide.Lists(Ids(services), range);
  if (std::all_of(lists.begin(), lists.end(), [](const Programs& list) { return list.empty(); })) {
    throw Failure(kNotFound, "Nothing is on from " + FormatDateTime(range.from) + " to " +
                                 FormatDateTime(range.to) + " on any of these services.");
  }
  Print(page ? Page(services, lists, range, clock) : Xmltv(guide, services, lists, clock));
  return kFound;
}

}  // namespace esgctl
