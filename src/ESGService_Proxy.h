#ifndef SRC_ESG_SERVICE_PROXY_H
#define SRC_ESG_SERVICE_PROXY_H

#include <json/forwards.h>

#include <atomic>
#include <map>
#include <string>

#include "ESGExport.h"
#include "IESGService.h"

class EIIPCConnection;
namespace esg::operations {
template <typename Result>
struct Operation;
}

/// The only implementation of IESGService: every operation is one call to the service.
class ESG_API ESGService_Proxy : public IESGService {
 public:
  ESGService_Proxy();
  /// Borrows `connection` for its calls; null means the process-wide connection.
  explicit ESGService_Proxy(EIIPCConnection* connection);
  ~ESGService_Proxy() override;

  /// The process-wide proxy. Created without a lock: two threads may each create one at their first
  /// call, and one of the two is then unused.
  static ESGService_Proxy* Instance();

  bool GetPresentProgram(const std::string& globalServiceId, FCESGProgramInfo& program) override;
  bool GetProgramList(const std::string& globalServiceId, unsigned int startTime,
                      unsigned int duration,
                      std::map<unsigned int, FCESGProgramInfo>& programs) override;
  bool GetProgram(const FCESGProgramInfo& program, eRelative_Position position,
                  FCESGProgramInfo& result) override;
  bool GetProgramItem(const std::string& globalServiceId, const std::string& contentId,
                      unsigned int startTime, FCESGProgramInfo& program) override;
  bool GetScheduleFragment(std::string& xmlFragment, std::string& globalServiceId,
                           unsigned int startTime, unsigned int duration, bool bb) override;
  bool GetServiceFragment(std::string& xmlFragment, std::string& globalServiceId, bool bb) override;
  bool GetContentFragment(std::string& xmlFragment, std::string& globalServiceId,
                          unsigned int startTime, unsigned int duration, bool bb) override;
  bool SaveContentFragment(const std::string& path, const std::string& globalServiceId,
                           bool bb) override;
  bool SaveScheduleFragment(const std::string& path, const std::string& globalServiceId,
                            bool bb) override;
  bool SaveServiceFragment(const std::string& path, const std::string& globalServiceId,
                           bool bb) override;

  /// Sends an argument text and replaces `reply` with the text of the reply. If the call fails,
  /// returns false and does not change `reply`.
  bool RemoteCallWithStringArguments(const char* method, const std::string& arguments,
                                     std::string& reply);
  /// The same with an argument object and a parsed reply.
  bool RemoteCallWithJsonArguments(const char* method, const Json::Value& arguments,
                                   Json::Value& reply);

 private:
  template <typename Result>
  ESG_LOCAL bool m_Perform(const esg::operations::Operation<Result>& operation, Result& result);

  EIIPCConnection* m_pConnection;

  static std::atomic<ESGService_Proxy*> m_Instance;
};

#endif
