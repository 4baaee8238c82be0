#include <gmock/gmock.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <tuple>

#include "ChildProgram.h"
#include "IESGService.h"
#include "PrivateBus.h"
#include "RawPeer.h"

/// The shipped policy on a bus with the stock one, tried by users of several kinds. Everything runs
/// in one thread, so that a child process can take on a user's identity.
namespace {

using namespace esg::test;
namespace internal = esg::internal;

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

std::string NameOf(DBusConnection* connection) { return dbus_bus_get_unique_name(connection); }

/// What has come in until now: of signals and calls the members, of errors the names. Its round
/// trip tells when the bus has dealt with everything sent before.
std::vector<std::string> Received(DBusConnection* connection) {
  dbus_bus_name_has_owner(connection, kESGServiceName, nullptr);
  std::vector<std::string> received;
  while (const MessagePtr message{dbus_connection_pop_message(connection)}) {
    const char* error = dbus_message_get_error_name(message.get());
    const char* member = dbus_message_get_member(message.get());
    if (dbus_message_has_sender(message.get(), DBUS_SERVICE_DBUS) == FALSE || error != nullptr) {
      received.emplace_back(error != nullptr ? error : member != nullptr ? member : "reply");
    }
  }
  return received;
}

/// Sends it. Returns the name of the error that the bus replies with, if any.
std::string Send(DBusConnection* connection, const MessagePtr& message) {
  dbus_connection_send(connection, message.get(), nullptr);
  const std::vector<std::string> received = Received(connection);
  return received.empty() ? "" : received.front();
}

// What users do on connections of their own, and what that comes to.

using Act = std::function<std::string(DBusConnection*)>;

std::string Own(DBusConnection* connection) {
  internal::Error error;
  dbus_bus_request_name(connection, kESGServiceName, 0, &error);
  return error.IsSet() ? error.name : "";
}
std::string CallService(DBusConnection* connection) {
  return Send(connection, MakeCall(kESGServiceName, "Save", "{}"));
}
std::string CallAnythingElse(DBusConnection* connection) {
  return Send(connection, MessagePtr(dbus_message_new_method_call(
                              kESGServiceName, "/com/velmora/Object", kESGServiceName, "Other")));
}
std::string PostToItself(DBusConnection* connection) {
  internal::Error error;  // a process has one connection to send and another to receive
  const internal::ConnectionPtr receiver = OpenBus(error);
  const std::string refusal = Send(connection, MakeSignal("Event", 5, "", NameOf(receiver.get())));
  return refusal + (Received(receiver.get()).size() == 1 ? "" : " nothing");
}
Act Emit(const char* member, const std::string& destination) {
  return [=](DBusConnection* connection) {
    return Send(connection, MakeSignal(member, 5, "", destination));
  };
}

/// What `act` returns in a process of this user.
std::string As(const User& user, const Act& act) {
  static auto& result = *static_cast<std::array<char, 256>*>(
      mmap(nullptr, 256, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const pid_t pid = fork();
  if (pid == 0) {
    internal::Error error;
    if (setgroups(1, &user.group) != 0 || setresgid(65534, 65534, 65534) != 0 ||
        setresuid(user.uid, user.uid, user.uid) != 0) {
      _exit(1);
    }
    const internal::ConnectionPtr connection = OpenBus(error);
    result[act(connection.get()).copy(result.data(), result.size() - 1)] = '\0';
    _exit(0);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  EXPECT_EQ(status, 0);
  return result.data();
}

void TryEverything() {
  PrivateBus bus(Policies());
  bus.Start();
  const std::string nothing = kRefused + std::string(" nothing");
  const std::tuple<User, const char*, const char*> rows[] = {{kRoot, "", ""},
                                                             {kGuide, "", ""},
                                                             {kPoster, kRefused, ""},
                                                             {kNobody, kRefused, nothing.c_str()}};
  for (const auto& [user, owns, posts] : rows) {
    EXPECT_EQ(As(user, &Own), owns) << user.what;
    EXPECT_EQ(As(user, &PostToItself), posts) << user.what;
  }
  internal::Error error;
  const internal::ConnectionPtr service = OpenBus(error);
  ASSERT_EQ(Own(service.get()), "");
  for (const User& user : {kRoot, kGuide, kNobody}) {
    EXPECT_EQ(As(user, &CallService), "") << user.what;
    EXPECT_THAT(Received(service.get()), testing::ElementsAre("MethodCall")) << user.what;
  }
  EXPECT_EQ(As(kNobody, &CallAnythingElse), kRefused);
  EXPECT_THAT(Received(service.get()), testing::IsEmpty());

  const internal::ConnectionPtr subscriber = OpenBus(error);
  dbus_bus_add_match(subscriber.get(), "type='signal'", nullptr);
  // Who emits what, whether to one receiver, and whether that is allowed.
  const std::tuple<User, const char*, bool, bool> emissions[] = {
      {kRoot, "Event", false, true},    {kRoot, "Data", false, true},
      {kGuide, "Event", false, true},   {kGuide, "Data", true, true},
      {kPoster, "Event", true, true},   {kPoster, "Event", false, false},
      {kPoster, "Data", true, false},   {kNobody, "Event", true, false},
      {kNobody, "Event", false, false}, {kNobody, "Data", false, false},
  };
  for (const auto& [user, member, isAddressed, isAllowed] : emissions) {
    const std::string destination = isAddressed ? NameOf(subscriber.get()) : "";
    SCOPED_TRACE(std::string(user.what) + " " + member + " " + destination);
    // The bus says nothing about a broadcast that it drops.
    EXPECT_EQ(As(user, Emit(member, destination)), isAllowed || !isAddressed ? "" : kRefused);
    EXPECT_EQ(Received(subscriber.get()).size(), isAllowed ? 1U : 0U);
  }
}

TEST(Policy, TellsWhoMayDoWhat) {
  if (geteuid() == 0) {  // who can take on other users' identities
    TryEverything();
    return;
  }
  std::vector<std::string> command = {"unshare", "--map-root-user", "--map-auto", "true"};
  if (ChildProgram(command).Wait() != 0) {
    GTEST_SKIP() << "did not run: needs root, or a user namespace with the ids of /etc/subuid";
  }
  command.back() = std::filesystem::read_symlink("/proc/self/exe");
  command.emplace_back("--gtest_filter=Policy.TellsWhoMayDoWhat");
  EXPECT_EQ(ChildProgram(command, STDOUT_FILENO).Wait(), 0);
}

}  // namespace
