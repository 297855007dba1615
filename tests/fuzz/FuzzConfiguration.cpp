// Decodes any bytes as a project configuration: an error or a project, never a crash.
#include <pelkit/PELProject.h>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    (void)pelkit::PELProject::decode(pelkit::Bytes(data, data + size));
    return 0;
}
