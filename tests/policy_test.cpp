#include <gmock/gmock.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <regex>
#include <sstream>
#include <tuple>

#include "IESGService.h"
#include "IPCS/internal/Handles.h"
#include "PrivateBus.h"
#include "RawPeer.h"

/// The shipped policy on a bus with the stock one, tried by users of several kinds. Everything runs
/// in one thread, so that a child process can take on a user's identity.
namespace {

using esg::internal::MessagePtr;

constexpr char kRefused[] = DBUS_ERROR_ACCESS_DENIED;

struct User {
  const char* what;
  uid_t uid;
  gid_t group;
};
// A stand-in for the user and the group that the package makes, which a machine may lack.
constexpr User kRoot{"root", 0, 0};
constexpr User kGuide{"the service's user", 1, 65534};
constexpr User kPoster{"a member of the group", 65534, 1};
constexpr User kNobody{"nobody", 65534, 65534};

/// The policies of the system bus as shipped, followed by ours for the protocol and for the
/// service.
std::string Policies() {
  std::string policies;
  for (const char* path :
       {"/usr/share/dbus-1/system.conf", POLICY_FOLDER "/com.velmora.ESGCallListener.conf",
        POLICY_FOLDER "/esg-guide-service.conf"}) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    const std::size_t begin = text.str().find("<policy");
    policies += text.str().substr(begin, text.str().rfind("</policy>") + 9 - begin);
  }
  return std::regex_replace(policies, std::regex("\"esg-(guide|event)\""), "\"1\"");
}

/// A connection whose round trips tell when the bus has dealt with everything sent before.
class Client {
 public:
  Client() : m_connection(OpenBus(m_error).release()) {
    if (m_connection == nullptr) {
      throw std::runtime_error(m_error.message);
    }
  }
  ~Client() { esg::internal::ConnectionPtr(m_connection).reset(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  std::string Name() const { return dbus_bus_get_unique_name(m_connection); }

  /// What has come in until now: of signals and calls the members, of errors the names.
  std::vector<std::string> Received() {
    dbus_bus_name_has_owner(m_connection, kESGServiceName, nullptr);
    std::vector<std::string> received;
    while (const MessagePtr message{dbus_connection_pop_message(m_connection)}) {
      const char* error = dbus_message_get_error_name(message.get());
      const char* member = dbus_message_get_member(message.get());
      if (dbus_message_has_sender(message.get(), DBUS_SERVICE_DBUS) == FALSE || error != nullptr) {
        received.emplace_back(error != nullptr ? error : member != nullptr ? member : "reply");
      }
    }
    return received;
  }

  /// Sends it; the name of the error that the bus answers with, if it does.
  std::string Send(MessagePtr message) {
    dbus_connection_send(m_connection, message.get(), nullptr);
    const std::vector<std::string> received = Received();
    return received.empty() ? "" : received.front();
  }

  std::string Own(const char* name) {
    esg::internal::Error error;
    dbus_bus_request_name(m_connection, name, 0, &error);
    return error.IsSet() ? error.name : "";
  }

  void Subscribe() { dbus_bus_add_match(m_connection, "type='signal'", nullptr); }

 private:
  esg::internal::Error m_error;
  DBusConnection* m_connection;
};

/// What `act` returns in a process of this user.
template <typename Act>
std::string As(const User& user, Act act) {
  static auto& result = *static_cast<std::array<char, 256>*>(
      mmap(nullptr, 256, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const pid_t pid = fork();
  if (pid == 0) {
    if (setgroups(1, &user.group) != 0 || setresgid(65534, 65534, 65534) != 0 ||
        setresuid(user.uid, user.uid, user.uid) != 0) {
      _exit(1);
    }
    Client client;
    result[act(client).copy(result.data(), result.size() - 1)] = '\0';
    _exit(0);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  EXPECT_EQ(status, 0);
  return result.data();
}

class PolicyNoBus : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "needs root, to take on other users' identities";
    }
    m_bus.Start();
  }

  PrivateBus m_bus{Policies()};
};

TEST_F(PolicyNoBus, TellsWhoMayOwnTheNameAndWhoMayPostToItself) {
  const auto own = [](Client& client) { return client.Own(kESGServiceName); };
  const auto post = [](Client& client) {
    Client receiver;  // a process has one connection to send and another to receive
    const std::string error = client.Send(MakeSignal("Event", 5, "", receiver.Name()));
    return error + std::to_string(receiver.Received().size());
  };
  for (const User& user : {kRoot, kGuide, kPoster, kNobody}) {
    EXPECT_EQ(As(user, own), user.uid <= 1 ? "" : kRefused) << user.what;
    EXPECT_EQ(As(user, post), user.uid <= 1 || user.group == 1 ? "1" : kRefused + std::string("0"))
        << user.what;
  }
}

TEST_F(PolicyNoBus, LetsEverybodyCallAndNothingElse) {
  Client service;
  ASSERT_EQ(service.Own(kESGServiceName), "");
  const auto call = [](Client& client) {
    return client.Send(MakeCall(kESGServiceName, "Save", "{}"));
  };
  for (const User& user : {kRoot, kGuide, kNobody}) {
    EXPECT_EQ(As(user, call), "") << user.what;
    EXPECT_THAT(service.Received(), testing::ElementsAre("MethodCall")) << user.what;
  }
  const auto other = [](Client& client) {
    return client.Send(MessagePtr(dbus_message_new_method_call(
        kESGServiceName, "/com/velmora/Object", kESGServiceName, "Other")));
  };
  EXPECT_EQ(As(kNobody, other), kRefused);
  EXPECT_THAT(service.Received(), testing::IsEmpty());
}

TEST_F(PolicyNoBus, TellsWhoMayEmit) {
  Client subscriber;
  subscriber.Subscribe();
  // Who emits what, whether to one receiver, and whether that is allowed.
  const std::tuple<User, const char*, bool, bool> rows[] = {
      {kRoot, "Event", false, true},    {kRoot, "Data", false, true},
      {kGuide, "Event", false, true},   {kGuide, "Data", true, true},
      {kPoster, "Event", true, true},   {kPoster, "Event", false, false},
      {kPoster, "Data", true, false},   {kNobody, "Event", true, false},
      {kNobody, "Event", false, false}, {kNobody, "Data", false, false},
  };
  for (const auto& [user, member, addressed, allowed] : rows) {
    const std::string destination = addressed ? subscriber.Name() : "";
    SCOPED_TRACE(std::string(user.what) + " " + member + " " + destination);
    const auto emit = [&, name = member](Client& client) {
      return client.Send(MakeSignal(name, 5, "", destination));
    };
    // The bus says nothing about a broadcast that it drops.
    EXPECT_EQ(As(user, emit), allowed || !addressed ? "" : kRefused);
    EXPECT_EQ(subscriber.Received().size(), allowed ? 1U : 0U);
  }
}

}  // namespace
