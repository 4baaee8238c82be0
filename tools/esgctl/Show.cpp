// show: one programme in full

#include "Commands.h"

namespace esgctl {
namespace {

using Fields = std::vector<TableRow>;

/// Adds what a member of a programme's JSON says, a line for each of its values; `known` is left
/// out.
void AddFields(Fields& fields, const std::string& label, const Json::Value& value,
               const std::string& known = {}) {
  if (value.isArray()) {
    for (const Json::Value& item : value) {
      AddFields(fields, label, item, known);
    }
    return;
  }
  std::string text = value.isString() ? value.asString() : "";
  for (const char* const name : {"text", "value", "uri"}) {
    text += value.isObject() ? value[name].asString() : "";
  }
  if (text.empty() || text == known) {
    return;
  }
  for (const char* const name : {"lang", "system"}) {
    if (value.isObject() && value.isMember(name)) {
      text += " [" + value[name].asString() + ']';
    }
  }
  fields.push_back({{label, text}});
}

std::string InFull(const Json::Value& program, const Showing& showing, const Style& style) {
  const Service& service = *showing.service;
  const std::string title = program["title"].asString();
  const std::string synopsis = program["synopsis"].asString();
  Fields fields;
  AddFields(fields, "Title", title);
  AddFields(fields, "Time",
            FormatTime(showing.start, "%a ") + FormatDateTime(showing.start) + " to " +
                FormatTimeOfDay(showing.end) + " (" + FormatDuration(showing.end - showing.start) +
                ')');
  if (!service.number.empty() || !service.name.empty()) {
    AddFields(fields, "Channel", service.Channel());
  }
  AddFields(fields, "Service", service.id);
  AddFields(fields, "Content id", program["content_id"]);
  AddFields(fields, "Series", program["series"]);
  AddFields(fields, "Episode", program["episode"]);
  AddFields(fields, "Genre", program["genre"]);
  AddFields(fields, "Synopsis", synopsis);
  AddFields(fields, "Title", program["titles"], title);
  AddFields(fields, "Synopsis", program["synopses"], synopsis);
  AddFields(fields, "Rating", program["ratings"]);
  AddFields(fields, "Language", program["titles"][0]["lang"]);
  AddFields(fields, "Audio", program["audio_languages"]);
  AddFields(fields, "Subtitles", program["text_languages"]);
  AddFields(fields, "Icon", program["icons"]);
  AddFields(fields, "Channel icon", program["channel_icons"]);
  for (const Json::Value& preview : program["previews"]) {
    AddFields(fields, "Preview", preview["contents"]);
    AddFields(fields, "Preview", preview["descriptions"]);
  }
  return RenderTable({"", ""}, std::move(fields), style);
}

/// The next showing of a content, or else the last one.
Listing NextShowing(Session& session, const std::vector<Service>& services,
                    const std::string& contentId) {
  const Seconds now = session.clock.Now();
  const auto isWanted = [&](const FCESGProgramInfo& program) {
    return program.GetEventID() == contentId;
  };
  for (const TimeRange& range :
       {TimeRange{now, now + 2 * kWeek}, TimeRange{now - 2 * kWeek, now}}) {
    Listing found = session.guide.Lists(services, range, isWanted).front();
    auto& all = found.showings;
    if (!all.empty()) {
      all = {range.to == now ? all.back() : all.front()};
      return found;
    }
  }
  return {&services.front(), {}};
}

}  // namespace

void RunShow(Session& session) {
  const Request& request = session.request;
  Guide& guide = session.guide;
  std::string contentId = request.contentId;
  std::optional<Seconds> start;
  if (!request.start.empty()) {
    start = ParseMoment(request.start, session.clock.Now()).time;
  } else if (!contentId.empty()) {
    // A single word is a time if it can be one.
    try {
      start = ParseMoment(contentId, session.clock.Now()).time;
      contentId.clear();
    } catch (const Failure&) {
    }
  }
  const Seconds from = start.value_or(session.clock.Now());
  const unsigned int time = session.clock.ToRecord(from);

  const std::vector<Service> services = session.ChosenServices();
  const Service& service = services.front();
  Listing found{&service, {}};
  if (contentId.empty()) {
    found = guide.Around(services, start, eRelative_Position_Current).front();
  } else if (start) {
    const auto question = [&](std::size_t, ESGAsync::ProgramCallback done) {
      return ESGAsync::GetProgramItem(service.id, contentId, time, std::move(done));
    };
    found = guide.Programmes(services, question).front();
  } else {
    found = NextShowing(session, services, contentId);
  }
  if (found.showings.empty()) {
    throw contentId.empty()
        ? guide.Explain("Nothing is on at this time on " + service.Label() + '.', service,
                        {from, from + 1})
        : Failure(kNotFound, "There is no showing of " + contentId + " on " + service.Label() +
                                 (start ? " at this time." : " within two weeks of now."));
  }
  const Showing& showing = found.showings.back();
  if (request.raw) {
    Print(JsonText(RecordToJson(showing)));
    return;
  }
  const Facts facts = guide.FactsOf({{&service, {showing}}});
  const Json::Value program = ProgramToJson(showing, facts, facts.services.front());
  Print(request.json ? JsonText(program) : InFull(program, showing, TableStyle(request)));
}

}  // namespace esgctl
