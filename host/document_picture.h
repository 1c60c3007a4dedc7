// Draws a document from the engine's overview of it.
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
  bool rms = false;  // also draws each column's root mean square; reads all samples
};

// Checks the request; call it before a long import. Throws a HostError.
void CheckPicture(const PictureRequest& request, const std::vector<std::string>& inputs);

// Returns the frames to draw. Throws a HostError.
FrameRange ResolveRange(const PictureRequest& request, std::int64_t frames, std::int32_t rate);

struct PictureSize {
  int width;
  int height;
};

// Draws the document with the given labels and markers. Throws a HostError.
PictureSize DrawDocument(IEditedAudio* document, const Annotations& annotations,
                         const PictureRequest& request);

// Draws the range from its levels instead of a document.
PictureSize DrawLevels(const ColumnLevels& levels, const FrameRange& range,
                       const AudioFormat& format, const Annotations& annotations,
                       const PictureRequest& request);

}  // namespace marlinda
