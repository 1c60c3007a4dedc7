// Draws a range of audio as a picture.
#pragma once

#include <marlinda.h>

#include <string>

#include "host/annotations.h"
#include "host/column_levels.h"
#include "host/engine.h"
#include "host/timecode.h"
#include "host/waveform_picture.h"

namespace marlinda {

struct PictureRequest {
  std::string file;                // .png or .svg
  int width = 1200;                // pixels
  std::optional<int> height = {};  // default: 320, more for many channels
  TimeRange range = {};
  PictureStyle style = {};
  bool rms = false;  // also draws each column's root mean square
};

// Throws a HostError if the picture cannot be written. Call CheckPicture before a long import.
void CheckPicture(const PictureRequest& request, const std::vector<std::string>& inputs);

// Collects a range of audio and draws it.
class RangePicture {
 public:
  RangePicture(const PictureRequest& request, const FrameRange& range, const AudioFormat& format);

  // Adds the next whole frames of the range.
  void Add(std::span<const float> samples);
  // Writes the picture with the given labels and markers. Returns its height. Throws a HostError.
  int Draw(const Annotations& annotations) const;

 private:
  const PictureRequest& request_;
  const FrameRange range_;
  const AudioFormat format_;
  ColumnLevels levels_;
  std::vector<float> samples_;  // drawn instead of levels_ if the range is short
};

// Draws the range of the request and returns the picture's height. Throws a HostError, or
// std::invalid_argument if the audio lacks the range.
int DrawAudio(IAudioReader* reader, const Annotations& annotations, const PictureRequest& request);

}  // namespace marlinda
