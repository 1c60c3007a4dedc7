// The picture of a document, drawn from the engine's overview of it.
#pragma once

#include <marlinda.h>

#include <string>

#include "host/annotations.h"
#include "host/timecode.h"

namespace marlinda {

struct PictureRequest {
  std::string file;  // PNG
  int width = 1200;  // pixels
  int height = 320;
  TimeRange range = {};
};

// Checks the request before the long import. Throws a HostError.
void CheckPicture(const PictureRequest& request, const std::vector<std::string>& inputs);

// The frames to draw. Throws a HostError.
FrameRange ResolveRange(const PictureRequest& request, std::int64_t frames, std::int32_t rate);

// Draws the document with these labels and markers. Throws a HostError.
void DrawDocument(IEditedAudio* document, const Annotations& annotations,
                  const PictureRequest& request);

}  // namespace marlinda
