// Keeps showing what is on: banner SERVICE-ID EVENT
//
// Reads the present programme again at each EVENT. A query blocks, for up to 25 seconds when the
// service is mute, so it runs on a thread of its own, and the main loop goes on meanwhile.

#include <ESGAPI.h>
#include <ESGEMSProxy.h>
#include <IESGService.h>
#include <IPCS/EIIPCConnection.h>
#include <glib.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace {

/// All of it belongs to the thread of the main loop; Ask alone runs elsewhere and shares nothing.
class Banner {
 public:
  explicit Banner(std::string serviceId) : m_serviceId(std::move(serviceId)) {}

  void Refresh() {
    if (m_asking) {
      m_again = true;  // the answer under way may be older than the event
      return;
    }
    m_asking = true;
    std::thread(Ask, this, m_serviceId).detach();  // one at a time
  }

 private:
  struct Answer {
    Banner* banner;
    std::optional<FCESGProgramInfo> program;
  };

  static void Ask(Banner* banner, const std::string& serviceId) {
    auto answer = std::make_unique<Answer>(Answer{banner, {}});
    try {
      FCESGProgramInfo program;
      if (ESGAPI::GetESGServiceAPI()->GetPresentProgram(serviceId, program)) {
        answer->program = std::move(program);
      }
    } catch (const std::exception& unreadable) {
      std::cerr << unreadable.what() << '\n';
    }
    // At the priority of events, not of idle work: a storm of events must not keep it waiting.
    g_idle_add_full(G_PRIORITY_DEFAULT, Show, answer.release(), nullptr);
  }

  static gboolean Show(void* data) {
    const std::unique_ptr<Answer> answer(static_cast<Answer*>(data));
    std::cout << (answer->program ? answer->program->Title() : "(no programme)") << std::endl;
    answer->banner->Answered();
    return G_SOURCE_REMOVE;
  }

  void Answered() {
    m_asking = false;
    if (m_again) {
      m_again = false;
      Refresh();
    }
  }

  const std::string m_serviceId;
  bool m_asking = false;
  bool m_again = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: banner SERVICE-ID EVENT\n";
    return 2;
  }
  Banner banner(argv[1]);
  const auto onEvent = [&banner](int event, const ESGEventData& /*data*/) {
    std::cout << "event " << event << std::endl;
    banner.Refresh();
    return 0;
  };
  IESGEMS* events = ESGEMSProxy::GetInstance(EIIPCConnection::GetInstance(), onEvent);
  if (events->SubscribeSignal(std::atoi(argv[2])) != 0) {
    return 1;
  }
  banner.Refresh();  // after subscribing, so that no change falls between the two

  g_main_loop_run(g_main_loop_new(nullptr, FALSE));  // until the program is interrupted
}
