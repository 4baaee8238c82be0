#ifndef GUIDE_LISTENER_H
#define GUIDE_LISTENER_H

#include <IPCS/IESGCallListener.h>
#include <json/forwards.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Guide.h"
#include "SaveFolder.h"

namespace esg::guide {

/// Answers the calls of the guide protocol: a JSON object of arguments comes in, one with "ret" and
/// the results goes out. A request that is malformed is answered with "ret" false and a line to the
/// report.
class GuideListener : public IESGCallListener {
 public:
  /// `now` gives the present moment in NTP seconds.
  GuideListener(const Folder& folder, const SaveFolder& saves, std::function<std::uint32_t()> now,
                Report report);

  /// Takes over a guide and gives back the one before.
  std::shared_ptr<const Guide> SetGuide(std::shared_ptr<const Guide> guide) {
    return std::exchange(m_guide, std::move(guide));
  }

  const Guide& CurrentGuide() const { return *m_guide; }

  /// True where "ret" is.
  bool OnMethodCall(const char* method, ESGMessageBuffer& in, ESGMessageBuffer& out) override;

 private:
  struct Method;
  static const Method kMethods[];

  // Each gives the text of the answer, which is empty where nothing is found.
  std::string GetPresentProgram(Json::Value& request);
  std::string GetProgramList(Json::Value& request);
  std::string GetProgram(Json::Value& request);
  std::string GetProgramItem(Json::Value& request);
  std::string GetScheduleFragment(Json::Value& request);
  std::string GetServiceFragment(Json::Value& request);
  std::string GetContentFragment(Json::Value& request);
  std::string SaveScheduleFragment(Json::Value& request);
  std::string SaveServiceFragment(Json::Value& request);
  std::string SaveContentFragment(Json::Value& request);

  std::string Answer(const std::string& name, const std::string& text);
  bool Load(const Kept* fragment, std::string& bytes) const;
  std::string Read(const Kept* fragment) const;
  std::string Save(Json::Value& request, const Kept* fragment) const;

  const Folder& m_folder;
  const SaveFolder& m_saves;
  const std::function<std::uint32_t()> m_now;
  const Report m_report;
  std::shared_ptr<const Guide> m_guide = std::make_shared<Guide>();
};

}  // namespace esg::guide

#endif
