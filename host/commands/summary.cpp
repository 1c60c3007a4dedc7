#include "host/commands/summary.h"

#include "host/commands/json.h"
#include "host/timecode.h"

namespace marlinda {

void PrintSummary(const WrittenFile& written, bool json, const Console& console) {
  const AudioFormat& format = written.format;
  if (json) {
    console.Print(ToText({{"input", written.input},
                          {"filter", written.filter},
                          {"output", written.output},
                          {"sample_rate", format.rate},
                          {"channels", format.channels},
                          {"bits_per_sample", written.bits},
                          {"frames", written.frames},
                          {"duration_seconds", static_cast<double>(written.frames) / format.rate},
                          {"bytes", written.facts.bytes},
                          {"labels", ToJson(written.annotations.labels)},
                          {"markers", ToJson(written.annotations.markers)},
                          {"picture", OrNull(written.picture)}}));
    return;
  }
  console.Print(written.output + ": " + FormatDuration(written.frames, format.rate) + ", " +
                std::to_string(written.frames) + " frames, " + std::to_string(format.rate) +
                " Hz, " + std::to_string(format.channels) + " channels, " +
                std::to_string(written.bits) + " bits\n");
}

}  // namespace marlinda
