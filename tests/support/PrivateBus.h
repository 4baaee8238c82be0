#ifndef TESTS_PRIVATE_BUS_H
#define TESTS_PRIVATE_BUS_H

#include <memory>
#include <string>

#include "ChildProgram.h"
#include "TemporaryFolder.h"

namespace esg::test {

/// A real dbus-daemon of type `system`, with that type's own limits, which ends with this process.
///
/// Its address is known, and stands in DBUS_SYSTEM_BUS_ADDRESS, before it is started; it may be
/// started late, and again at the same address.
class PrivateBus {
 public:
  /// `policy` takes the place of the default one, under which everybody may do everything;
  /// `settings` are other elements of its configuration.
  explicit PrivateBus(const std::string& policy = "", const std::string& settings = "");
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  /// Returns when the bus takes connections, at once where it does; throws when it does not start.
  void Start();
  /// Ends it, asking or not, and returns when it is gone.
  void Stop();
  void Kill();
  /// Lets it stand still, connected but without taking or giving anything, and go on.
  void Pause();
  void Resume();

 private:
  TemporaryFolder m_folder;
  std::unique_ptr<ChildProgram> m_daemon;
};

/// The bus at the address that every test has, which the fixture OnBus starts.
PrivateBus& TestBus();

}  // namespace esg::test

#endif
