#include <gmock/gmock.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>

#include "ChildProgram.h"
#include "IESGService.h"
#include "PrivateBus.h"
#include "RawPeer.h"

/// Users of several kinds on a bus with the system's policy and the shipped one. Everything runs in
/// one thread, so that a child process can take on a user's identity.
namespace {

using namespace esg::test;
namespace internal = esg::internal;

struct User {
  const char* what;
  uid_t uid;
  gid_t group;
};
// The second and the third stand in for the user and the group that the package creates.
constexpr User kRoot{"root", 0, 0};
constexpr User kGuide{"the service's user", 1, 65534};
constexpr User kPoster{"a member of the group", 65534, 1};
constexpr User kNobody{"nobody", 65534, 65534};

std::string Policies() {
  std::string policies;
  for (const char* path :
       {"/usr/share/dbus-1/system.conf", POLICY_FOLDER "/com.velmora.ESGCallListener.conf",
        POLICY_FOLDER "/esg-guide-service.conf"}) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    const std::size_t start = text.str().find("<policy");
    policies += text.str().substr(start, text.str().rfind("</policy>") + 9 - start);
  }
  return std::regex_replace(policies, std::regex("\"esg-(guide|event)\""), "\"1\"");
}

enum Result { kAllowed, kRefused, kLost };

/// Returns what has arrived from other users, or whether the bus has refused something. Its round
/// trip waits until the bus has handled everything that was sent before.
Result Received(DBusConnection* connection) {
  dbus_bus_name_has_owner(connection, kESGServiceName, nullptr);
  Result result = kLost;
  while (const MessagePtr message{dbus_connection_pop_message(connection)}) {
    if (dbus_message_is_error(message.get(), DBUS_ERROR_ACCESS_DENIED) != FALSE) {
      return kRefused;
    }
    if (dbus_message_has_sender(message.get(), DBUS_SERVICE_DBUS) == FALSE) {
      result = kAllowed;
    }
  }
  return result;
}

/// Something that a user does on a connection.
using Act = std::function<Result(DBusConnection*)>;

Act Send(const std::function<MessagePtr()>& make) {
  return [make](DBusConnection* connection) {
    dbus_connection_send(connection, make().get(), nullptr);
    return Received(connection) == kRefused ? kRefused : kAllowed;
  };
}

Result Own(DBusConnection* connection) {
  internal::Error error;
  dbus_bus_request_name(connection, kESGServiceName, 0, &error);
  return error.IsSet() ? kRefused : kAllowed;
}

/// Uses a second connection to receive, like the library.
Result PostToItself(DBusConnection* connection) {
  internal::Error error;
  const internal::ConnectionPtr receiver = OpenBus(error);
  const std::string to = dbus_bus_get_unique_name(receiver.get());
  const Result result = Send([&to] { return MakeSignal("Event", 5, "", to); })(connection);
  EXPECT_EQ(Received(receiver.get()), result == kAllowed ? kAllowed : kLost);
  return result;
}

/// The result of `act` in a process of this user.
Result As(const User& user, const Act& act) {
  const pid_t pid = fork();
  if (pid == 0) {
    internal::Error error;
    if (setgroups(1, &user.group) != 0 || setresgid(65534, 65534, 65534) != 0 ||
        setresuid(user.uid, user.uid, user.uid) != 0) {
      _exit(100);
    }
    const internal::ConnectionPtr connection = OpenBus(error);
    const Result result = act(connection.get());
    _exit(testing::Test::HasFailure() ? 100 : result);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) <= kLost) << status;
  return static_cast<Result>(WEXITSTATUS(status));
}

void TryEverything() {
  PrivateBus bus(Policies());
  bus.Start();
  const std::tuple<User, Result, Result> rows[] = {{kRoot, kAllowed, kAllowed},
                                                   {kGuide, kAllowed, kAllowed},
                                                   {kPoster, kRefused, kAllowed},
                                                   {kNobody, kRefused, kRefused}};
  for (const auto& [user, owns, posts] : rows) {
    EXPECT_EQ(As(user, &Own), owns) << user.what;
    EXPECT_EQ(As(user, &PostToItself), posts) << user.what;
  }
  internal::Error error;
  const internal::ConnectionPtr service = OpenBus(error);
  ASSERT_EQ(Own(service.get()), kAllowed);
  for (const User& user : {kRoot, kGuide, kNobody}) {
    EXPECT_EQ(As(user, Send([] { return MakeCall(kESGServiceName, "Save", "{}"); })), kAllowed);
    EXPECT_EQ(Received(service.get()), kAllowed) << user.what;
  }
  EXPECT_EQ(As(kNobody, Send([] {
                 return MessagePtr(dbus_message_new_method_call(
                     kESGServiceName, "/com/velmora/Object", kESGServiceName, "Other"));
               })),
            kRefused);
  EXPECT_EQ(Received(service.get()), kLost);

  const internal::ConnectionPtr subscriber = OpenBus(error);
  dbus_bus_add_match(subscriber.get(), "type='signal'", nullptr);
  // Which user emits which signal, whether to one receiver, and whether that is allowed.
  const std::tuple<User, const char*, bool, bool> emissions[] = {
      {kRoot, "Event", false, true},    {kRoot, "Data", false, true},
      {kGuide, "Event", false, true},   {kGuide, "Data", true, true},
      {kPoster, "Event", true, true},   {kPoster, "Event", false, false},
      {kPoster, "Data", true, false},   {kNobody, "Event", true, false},
      {kNobody, "Event", false, false}, {kNobody, "Data", false, false},
  };
  for (const auto& [user, member, isAddressed, isAllowed] : emissions) {
    const std::string to = isAddressed ? dbus_bus_get_unique_name(subscriber.get()) : "";
    SCOPED_TRACE(std::string(user.what) + " " + member + " " + to);
    // The bus does not say that it drops a broadcast.
    EXPECT_EQ(As(user, Send([name = member, to] { return MakeSignal(name, 5, "", to); })),
              isAllowed || !isAddressed ? kAllowed : kRefused);
    EXPECT_EQ(Received(subscriber.get()), isAllowed ? kAllowed : kLost);
  }
}

TEST(Policy, TellsWhichUserMayDoWhat) {
  if (geteuid() == 0) {  // may take on other users' identities
    TryEverything();
    return;
  }
  std::vector<std::string> command = {"unshare", "--map-root-user", "--map-auto", "true"};
  if (ChildProgram(command).Wait() != 0) {
    GTEST_SKIP() << "did not run: needs root, or a user namespace with the ids of /etc/subuid";
  }
  command.back() = std::filesystem::read_symlink("/proc/self/exe");
  command.emplace_back("--gtest_filter=Policy.TellsWhichUserMayDoWhat");
  EXPECT_EQ(ChildProgram(command, STDOUT_FILENO).Wait(), 0);
}

}  // namespace
