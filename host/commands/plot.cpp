#include "host/commands/plot.h"

#include "host/commands/json.h"
#include "host/engine.h"

namespace marlinda {

void RunPlot(PlotOptions options, const Console& console) {
  options.picture.range = options.from + ":" + options.to;
  CheckPicture(options.picture, options.input);
  Source source(options.input);
  const ImportedAudio audio = source.Import(console);
  const auto document = CreateObject<IEditedAudio>(CLSID_CEditedAudio, "CEditedAudio");
  Check(document->AppendSegment(audio.reader.Get(), 0, audio.frames));
  const Annotations annotations = source.ReadAnnotations();
  DrawDocument(document.Get(), annotations, options.picture);

  if (options.json) {
    console.Print(ToText(Json{{"input", options.input},
                              {"filter", source.filter().class_name},
                              {"picture", options.picture.file},
                              {"width", options.picture.width},
                              {"height", options.picture.height},
                              {"frames", audio.frames},
                              {"labels", ToJson(annotations.labels)},
                              {"markers", ToJson(annotations.markers)}}));
  } else {
    console.Print("drew " + options.picture.file + ": " + std::to_string(options.picture.width) +
                  " x " + std::to_string(options.picture.height) + " pixels\n");
  }
}

}  // namespace marlinda
