#ifndef TESTS_PRIVATE_BUS_H
#define TESTS_PRIVATE_BUS_H

#include <memory>
#include <string>

#include "ChildProgram.h"
#include "TemporaryFolder.h"

namespace esg::test {

/// A dbus-daemon with the limits of a system bus, which ends with this process.
///
/// DBUS_SYSTEM_BUS_ADDRESS has its address before it is started. It may be started late, and again
/// at the same address.
class PrivateBus {
 public:
  /// `policy` replaces the default one, which allows everything. `settings` are other elements of
  /// the configuration.
  explicit PrivateBus(const std::string& policy = "", const std::string& settings = "");
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  /// Waits until the bus accepts connections. Throws if it does not start.
  void Start();
  /// Ends it, by request or by force, and waits for its end.
  void Stop();
  void Kill();
  /// Stops it, connected but reading and writing nothing, and continues it.
  void Pause();
  void Resume();

 private:
  TemporaryFolder m_folder;
  std::unique_ptr<ChildProgram> m_daemon;
};

/// The bus that every test has the address of, and that the fixture OnBus starts.
PrivateBus& TestBus();

}  // namespace esg::test

#endif
