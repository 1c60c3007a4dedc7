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
  bool rms = false;  // also draws each column's root mean square, from all samples
};

// Checks the request. Call CheckPicture before a long import. Throws a HostError.
void CheckPicture(const PictureRequest& request, const std::vector<std::string>& inputs);

// Draws the document with the given labels and markers and returns the picture's height. Throws a
// HostError, or std::invalid_argument if the document lacks the range.
int DrawDocument(IEditedAudio* document, const Annotations& annotations,
                 const PictureRequest& request);

// Draws the range from its levels instead of a document.
int DrawLevels(const ColumnLevels& levels, const FrameRange& range, const AudioFormat& format,
               const Annotations& annotations, const PictureRequest& request);

}  // namespace marlinda
