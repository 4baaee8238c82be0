#ifndef GUIDE_LISTENER_H
#define GUIDE_LISTENER_H

#include <IPCS/IESGCallListener.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Guide.h"
#include "SaveFolder.h"

namespace esg::guide {

/// Replies to the calls of the guide protocol: a JSON object of arguments comes in, one with "ret"
/// and the results goes out. The reply to a malformed request has "ret" false, and the report gets
/// a line.
class GuideListener : public IESGCallListener {
 public:
  /// `now` gives the present moment in NTP seconds.
  GuideListener(std::string folder, const SaveFolder& saves, std::function<std::uint32_t()> now,
                Report report);

  /// Replaces the guide and returns the one before.
  std::shared_ptr<const Guide> SetGuide(std::shared_ptr<const Guide> guide) {
    return std::exchange(m_guide, std::move(guide));
  }

  const Guide& CurrentGuide() const { return *m_guide; }

  /// True if "ret" is.
  bool OnMethodCall(const char* method, ESGMessageBuffer& in, ESGMessageBuffer& out) override;

 private:
  struct Method;
  static const Method kMethods[];

  std::string Reply(const std::string& name, const std::string& text) const;
  std::string Load(const Kept* fragment) const;
  std::string GetFragment(const Kept* fragment) const;
  std::string SaveFragment(const std::string& path, const Kept* fragment,
                           const Kept* otherwise) const;

  const std::string m_folder;
  const SaveFolder& m_saves;
  const std::function<std::uint32_t()> m_now;
  const Report m_report;
  std::shared_ptr<const Guide> m_guide = std::make_shared<Guide>();
};

}  // namespace esg::guide

#endif
