#include "Commands.h"

#include <glib.h>

#include <iostream>

#include "TextWidth.h"

namespace esgctl {

Clock Session::MakeClock() const {
  return {epoch == "unix" ? Epoch::Unix : Epoch::Ntp, g_get_real_time() / G_USEC_PER_SEC};
}

const Aliases& Session::Services() {
  if (!m_aliases) {
    const std::string path = Aliases::DefaultPath();
    m_aliases = Aliases::Load(path);
    for (const std::string& complaint : m_aliases->Complaints()) {
      std::cerr << "esgctl: " << path << ", " << complaint << '\n';
    }
  }
  return *m_aliases;
}

void RangeOptions::AddTo(CLI::App& command, const std::string& usualLength) {
  command
      .add_option("--from", from, "Begin of the range (now, 20:00, \"2026-05-01 20:00\", +2h, ...)")
      ->type_name("TIME");
  command.add_option("--to", to, "End of the range, not part of it")->type_name("TIME");
  command.add_option("--for", length, "Length of the range (90m, 6h, 2d); else " + usualLength)
      ->type_name("DURATION");
}

TimeRange RangeOptions::Parse(Seconds usualLength, const Clock& clock) const {
  const TimeRange range = ParseRange(from, to, length, usualLength, clock.Now());
  clock.ToRecord(range.from);
  clock.ToRecord(range.to - 1);
  return range;
}

void AddService(CLI::App& command, std::string& service) {
  command.add_option("SERVICE", service, "An alias, a part of one, or a global service id")
      ->required();
}

}  // namespace esgctl
