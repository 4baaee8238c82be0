// Reads the input as a file of the guide, of any kind, and queries the resulting guide.

#include "Guide.h"

#include <json/reader.h>

#include "Fuzz.h"
#include "GuideFiles.h"
#include "Reply.h"

namespace {

using namespace esg::guide;  // NOLINT(google-build-using-namespace)

fuzz::Goal withUnit{"a fragment in a delivery unit"};
fuzz::Goal withPacked{"a fragment in a gzip-compressed unit"};
fuzz::Goal withDescriptor{"a descriptor"};
fuzz::Goal withProgrammes{"a programme"};

void CheckJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  assert(reader->parse(text.data(), text.data() + text.size(), &value, nullptr));
}

void CheckGuide(const Guide& guide) {
  for (const auto& [id, service] : guide.Services()) {
    const auto programs =
        guide.Within(id, {service.programs.empty() ? 0 : guide.First().value(), UINT32_MAX});
    withProgrammes.reached |= !programs.empty();
    for (const Program* program : programs) {
      CheckJson(ProgramReply(id, *program));
    }
    if (!programs.empty()) {
      CheckJson(ListReply(id, programs));
    }
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto kind = input.Take<std::uint8_t>();
  std::string bytes = input.Bytes();
  if (kind == 'z') {
    bytes = Gzip(bytes);
  }
  const auto file = ReadFile(kind == 'x' ? "f.xml" : "u", bytes);
  withUnit.reached |= file->isUnit && !file->fragments.empty();
  withPacked.reached |= file->isUnit && kind == 'z' && !file->fragments.empty();
  withDescriptor.reached |= !file->units.empty();
  CheckGuide(Guide({file, ReadFile("s.xml", "<Service id='1'/>")}, 0, [](const std::string&) {}));
  return 0;
}
