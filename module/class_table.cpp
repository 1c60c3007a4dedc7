#include "core/class_table.h"

#include <marlinda.h>

namespace marlinda {

// MARLINDA_DEFINE_CLASS defines these functions beside each class.
CreationFunction CreateCAudioConnector, CreateCAudioGrabber, CreateCAudioPlayback, CreateCAudioPool,
    CreateCAudioPoolReader, CreateCAudioScrubber, CreateCDShowExport, CreateCDShowImport,
    CreateCEditedAudio, CreateCFileFilterMgr, CreateCNullReader, CreateCOggImport,
    CreateCWavExportFilter, CreateCWaveWriter;

std::span<const ClassEntry> ClassTable() noexcept {
  static const ClassEntry table[] = {
      {&CLSID_CAudioConnector, L"CAudioConnector", CreateCAudioConnector},
      {&CLSID_CAudioGrabber, L"CAudioGrabber", CreateCAudioGrabber},
      {&CLSID_CAudioPlayback, L"CAudioPlayback", CreateCAudioPlayback},
      {&CLSID_CAudioPool, L"CAudioPool", CreateCAudioPool},
      {&CLSID_CAudioPoolReader, L"CAudioPoolReader", CreateCAudioPoolReader},
      {&CLSID_CAudioScrubber, L"CAudioScrubber", CreateCAudioScrubber},
      {&CLSID_CDShowExport, L"CDShowExport", CreateCDShowExport},
      {&CLSID_CEditedAudio, L"CEditedAudio", CreateCEditedAudio},
      {&CLSID_CWavExportFilter, L"CWavExportFilter", CreateCWavExportFilter},
      {&CLSID_CDShowImport, L"CDShowImport", CreateCDShowImport},
      {&CLSID_CFileFilterMgr, L"CFileFilterMgr", CreateCFileFilterMgr},
      {&CLSID_CNullReader, L"CNullReader", CreateCNullReader},
      {&CLSID_COggImport, L"COggImport", CreateCOggImport},
      {&CLSID_CWaveWriter, L"CWaveWriter", CreateCWaveWriter},
  };
  return table;
}

}  // namespace marlinda
