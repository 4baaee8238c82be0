// export xmltv, export html, export json

#include <glib.h>

#include <algorithm>
#include <pugixml.hpp>
#include <set>
#include <sstream>

#include "Commands.h"
#include "PageHtml.h"

namespace esgctl {
namespace {

constexpr char kXmltvTime[] = "%Y%m%d%H%M%S %z";

/// Adds an element whose texts have only characters that XML allows. Empty attributes are left out.
pugi::xml_node Add(pugi::xml_node parent, const char* name, const std::string& text,
                   std::initializer_list<std::pair<const char*, std::string>> attributes = {}) {
  pugi::xml_node node = parent.append_child(name);
  for (const auto& [attribute, value] : attributes) {
    if (!value.empty()) {
      node.append_attribute(attribute).set_value(Printable(value).c_str());
    }
  }
  if (!text.empty()) {
    node.text().set(Printable(text).c_str());
  }
  return node;
}

/// A name for each service in the form that XMLTV wants: words of letters, digits and hyphens, with
/// dots between them.
std::vector<std::string> ChannelIds(const Listings& listings) {
  std::vector<std::string> ids;
  std::set<std::string> taken;
  for (const Listing& listing : listings) {
    std::string words = listing.service->id;
    g_strcanon(words.data(), G_CSET_A_2_Z G_CSET_a_2_z G_CSET_DIGITS "-", ' ');
    std::string id;
    for (const std::string& word : Words(words)) {
      id += word + '.';
    }
    id += id.empty() ? "service.esg" : "esg";
    while (!taken.insert(id).second) {
      id += '2';  // another service whose id differs in other characters only
    }
    ids.push_back(std::move(id));
  }
  return ids;
}

/// The text of the record first, then those in other languages.
void AddTexts(pugi::xml_node node, const char* name, const std::string& first,
              const Json::Value& texts) {
  const auto same = std::find_if(texts.begin(), texts.end(),
                                 [&](const Json::Value& text) { return text["text"] == first; });
  if (!first.empty()) {
    Add(node, name, first, {{"lang", same == texts.end() ? "" : (*same)["lang"].asString()}});
  }
  for (const Json::Value& text : texts) {
    if (text["text"] != first) {
      Add(node, name, text["text"].asString(), {{"lang", text["lang"].asString()}});
    }
  }
}

/// Other programs know "TV-14" alone. What a rating says beside that, such as "L", is an advisory.
void AddRatings(pugi::xml_node programme, const Json::Value& ratings) {
  for (const Json::Value& rating : ratings) {
    const std::string system = rating["system"].asString();
    const std::string whole = rating["value"].asString();
    const bool american = system == "VCHIP";
    for (const std::string& value : american ? Words(whole) : std::vector{whole}) {
      const bool advisory = american && value.rfind("TV-", 0) != 0;
      Add(Add(programme, "rating", "", {{"system", advisory ? "advisory" : system}}), "value",
          value);
    }
  }
}

/// Adds what the JSON of a programme says, in the order that XMLTV prescribes.
void AddProgramme(pugi::xml_node tv, const std::string& channel, const Json::Value& program) {
  const Seconds start = program["start"].asInt64();
  const Seconds end = program["end"].asInt64();
  const std::string stop = end > start ? FormatTime(end, kXmltvTime) : "";
  const pugi::xml_node node =
      Add(tv, "programme", "",
          {{"start", FormatTime(start, kXmltvTime)}, {"stop", stop}, {"channel", channel}});
  AddTexts(node, "title", program.get("title", "Untitled").asString(), program["titles"]);
  AddTexts(node, "desc", program["synopsis"].asString(), program["synopses"]);
  std::istringstream genres(program["genre"].asString());
  for (std::string genre; std::getline(genres, genre, ',');) {
    Add(node, "category", std::string(Trimmed(genre)));
  }
  if (!program["audio_languages"].empty()) {
    Add(node, "language", program["audio_languages"][0].asString());
  }
  for (const Json::Value& icon : program["icons"]) {
    if (icon.isMember("uri")) {
      Add(node, "icon", "", {{"src", icon["uri"].asString()}});
    }
  }
  if (program.isMember("series")) {
    Add(node, "episode-num", program["series"].asString() + '.' + program["episode"].asString(),
        {{"system", "dd_progid"}});
  }
  for (const Json::Value& language : program["text_languages"]) {
    Add(Add(node, "subtitles", ""), "language", language.asString());
  }
  AddRatings(node, program["ratings"]);
}

std::string Xmltv(const Listings& listings, const Facts& facts) {
  pugi::xml_document document;
  document.load_string(R"(<?xml version="1.0" encoding="UTF-8"?><!DOCTYPE tv SYSTEM "xmltv.dtd">)"
                       R"(<tv generator-info-name="esgctl"/>)",
                       pugi::parse_full);
  const pugi::xml_node tv = document.document_element();
  const std::vector<std::string> ids = ChannelIds(listings);
  for (std::size_t i = 0; i < listings.size(); ++i) {
    if (listings[i].showings.empty()) {
      continue;  // XMLTV's own checker wants programmes of each channel
    }
    const Service& service = *listings[i].service;
    const pugi::xml_node channel = Add(tv, "channel", "", {{"id", ids[i]}});
    AddTexts(channel, "display-name", service.Label(), facts.services[i]["titles"]);
    if (!service.number.empty()) {
      Add(channel, "display-name", service.number);
    }
    for (const Json::Value& icon : facts.services[i]["icons"]) {
      Add(channel, "icon", "", {{"src", icon.asString()}});
    }
  }
  for (std::size_t i = 0; i < listings.size(); ++i) {
    for (const Showing& showing : listings[i].showings) {
      AddProgramme(tv, ids[i], ProgramToJson(showing, facts, facts.services[i]));
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

void AddCell(pugi::xml_node row, const Showing& showing, const TimeRange& range) {
  const auto& [service, program, start, end] = showing;
  const pugi::xml_node cell = Add(row, "li", "",
                                  {{"style", Place(start, end, range)},
                                   {"data-start", std::to_string(start)},
                                   {"data-end", std::to_string(end)}});
  const pugi::xml_node button = Add(cell, "button", "", {{"type", "button"}});
  Add(button, "time", FormatTimeOfDay(start));
  Add(button, "bdi", program.Title());
  pugi::xml_node details = Add(cell, "div", "");
  details.append_attribute("hidden").set_value("");
  Add(details, "p",
      FormatTime(start, "%A ") + FormatDateTime(start) + " \u2013 " + FormatTimeOfDay(end));
  Add(details, "p", program.Synopsis(), {{"dir", "auto"}});
  Add(details, "p", program.Genre());
}

std::string Page(const Listings& listings, const TimeRange& range) {
  pugi::xml_document document;
  Add(document.root(), "h1",
      FormatTime(range.from, "%A, %-d %B %Y, %H:%M") + " \u2013 " + FormatTime(range.to, "%H:%M"));
  const pugi::xml_node guide =
      Add(document.root(), "div", "",
          {{"id", "guide"},
           {"style", "--m:" + std::to_string((range.to - range.from) / 60)},
           {"data-from", std::to_string(range.from)},
           {"data-to", std::to_string(range.to)}});
  const pugi::xml_node times = Add(guide, "ol", "", {{"id", "times"}, {"aria-hidden", "true"}});
  for (Seconds time = range.from; time < range.to; time += kHour / 2) {
    Add(times, "li", FormatTimeOfDay(time), {{"style", Place(time, time + kHour / 2, range)}});
  }
  for (const auto& [service, showings] : listings) {
    const pugi::xml_node section = Add(guide, "section", "");
    const pugi::xml_node heading = Add(section, "h2", "");
    Add(heading, "small", service->number);
    Add(heading, "bdi", service->Label());
    const pugi::xml_node row = Add(section, "ol", "");
    for (const Showing& showing : showings) {
      AddCell(row, showing, range);
    }
  }
  std::ostringstream text;
  document.save(text, "",
                pugi::format_raw | pugi::format_no_declaration | pugi::format_no_empty_element_tags,
                pugi::encoding_utf8);
  constexpr std::string_view kMark = "{GUIDE}";
  return std::string(kPageHtml).replace(kPageHtml.find(kMark), kMark.size(), text.str());
}

/// This evening; once it has started, the hours from now.
TimeRange Evening(const Session& session) {
  TimeRange range = session.Range(6 * kHour);
  if (session.request.from.empty()) {
    const Seconds evening = ParseMoment("18:00", session.clock.Now()).time;
    const Seconds from = std::max(evening, range.from - range.from % (kHour / 2));
    range.to = session.request.to.empty() ? from + range.to - range.from : range.to;
    range.from = std::min(from, range.to - kHour / 2);
  }
  return range;
}

}  // namespace

void RunExport(Session& session) {
  const std::string& format = session.request.format;
  View view;
  view.range = [&] { return format == "html" ? Evening(session) : session.Range(kWeek); };
  view.show = [&](const Listings& listings, const TimeRange& range) {
    if (format == "html") {
      return Page(listings, range);
    }
    const Facts facts = session.guide.FactsOf(listings);
    return format == "json" ? JsonText(ListingsToJson(listings, &facts)) : Xmltv(listings, facts);
  };
  Look(session, view);
}

}  // namespace esgctl
