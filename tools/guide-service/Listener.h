#ifndef GUIDE_LISTENER_H
#define GUIDE_LISTENER_H

#include <IPCS/IESGCallListener.h>
#include <json/value.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Guide.h"
#include "SaveFolder.h"

namespace guide {

/// Answers the calls of the guide protocol: a JSON object of arguments comes in, one with "ret" and
/// the results goes out. A request that is not as it should be is answered with "ret" false and a
/// line to the report.
class GuideListener : public IESGCallListener {
 public:
  /// `now` gives the present moment in NTP seconds.
  GuideListener(std::shared_ptr<const Guide> guide, SaveFolder saves,
                std::function<std::uint32_t()> now, Report report);

  void SetGuide(std::shared_ptr<const Guide> guide) { m_guide = std::move(guide); }

  /// True where "ret" is.
  bool OnMethodCall(const char* method, ESGMessageBuffer& in, ESGMessageBuffer& out) override;

  /// The text of the answer to the request `text`; `ret` is its "ret".
  std::string Answer(const std::string& method, const std::string& text, bool& ret);

 private:
  struct Method;
  static const Method kMethods[];

  bool GetPresentProgram(Json::Value& request, Json::Value& reply);
  bool GetProgramList(Json::Value& request, Json::Value& reply);
  bool GetProgram(Json::Value& request, Json::Value& reply);
  bool GetProgramItem(Json::Value& request, Json::Value& reply);
  bool GetScheduleFragment(Json::Value& request, Json::Value& reply);
  bool GetServiceFragment(Json::Value& request, Json::Value& reply);
  bool GetContentFragment(Json::Value& request, Json::Value& reply);
  bool SaveScheduleFragment(Json::Value& request, Json::Value& reply);
  bool SaveServiceFragment(Json::Value& request, Json::Value& reply);
  bool SaveContentFragment(Json::Value& request, Json::Value& reply);

  using Find = const Fragment* (Guide::*)(const std::string&, const Span&) const;
  bool ReadFragment(Json::Value& request, Json::Value& reply, Find find);
  bool SaveFragment(Json::Value& request, const Fragment* fragment);
  const Fragment* ToSave(Json::Value& request, Find find) const;

  bool Handle(const std::string& name, const std::string& text, Json::Value& reply);

  std::shared_ptr<const Guide> m_guide;
  const SaveFolder m_saves;
  const std::function<std::uint32_t()> m_now;
  const Report m_report;
};

}  // namespace guide

#endif
