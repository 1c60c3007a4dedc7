#include "core/class_table.h"

#include <marlinda.h>

namespace marlinda {

// Defined in the folder of each class with MARLINDA_DEFINE_CLASS.
#define MARLINDA_DECLARE_CLASS(Class) \
  HRESULT Create##Class(IUnknown* outer, REFIID iid, void** object) noexcept
MARLINDA_DECLARE_CLASS(CAudioConnector);
MARLINDA_DECLARE_CLASS(CAudioGrabber);
MARLINDA_DECLARE_CLASS(CAudioPlayback);
MARLINDA_DECLARE_CLASS(CAudioPool);
MARLINDA_DECLARE_CLASS(CAudioPoolReader);
MARLINDA_DECLARE_CLASS(CAudioScrubber);
MARLINDA_DECLARE_CLASS(CDShowExport);
MARLINDA_DECLARE_CLASS(CDShowImport);
MARLINDA_DECLARE_CLASS(CEditedAudio);
MARLINDA_DECLARE_CLASS(CFileFilterMgr);
MARLINDA_DECLARE_CLASS(CNullReader);
MARLINDA_DECLARE_CLASS(COggImport);
MARLINDA_DECLARE_CLASS(CWavExportFilter);
MARLINDA_DECLARE_CLASS(CWaveWriter);
#undef MARLINDA_DECLARE_CLASS

std::span<const ClassEntry> ClassTable() noexcept {
  static const ClassEntry table[] = {
      {&CLSID_CAudioConnector, L"CAudioConnector", L"Marlinda.AudioConnector.1",
       CreateCAudioConnector},
      {&CLSID_CAudioGrabber, L"CAudioGrabber", L"Marlinda.AudioGrabber.1", CreateCAudioGrabber},
      {&CLSID_CAudioPlayback, L"CAudioPlayback", L"Marlinda.AudioPlayback.1", CreateCAudioPlayback},
      {&CLSID_CAudioPool, L"CAudioPool", L"Marlinda.AudioPool.1", CreateCAudioPool},
      {&CLSID_CAudioPoolReader, L"CAudioPoolReader", L"Marlinda.AudioPoolReader.1",
       CreateCAudioPoolReader},
      {&CLSID_CAudioScrubber, L"CAudioScrubber", L"Marlinda.AudioScrubber.1", CreateCAudioScrubber},
      {&CLSID_CDShowExport, L"CDShowExport", L"Marlinda.DShowExport.1", CreateCDShowExport},
      {&CLSID_CEditedAudio, L"CEditedAudio", L"Marlinda.EditedAudio.1", CreateCEditedAudio},
      {&CLSID_CWavExportFilter, L"CWavExportFilter", L"Marlinda.WavExportFilter.1",
       CreateCWavExportFilter},
      {&CLSID_CDShowImport, L"CDShowImport", L"Marlinda.DShowImport.1", CreateCDShowImport},
      {&CLSID_CFileFilterMgr, L"CFileFilterMgr", L"Marlinda.FileFilterMgr.1", CreateCFileFilterMgr},
      {&CLSID_CNullReader, L"CNullReader", L"Marlinda.NullReader.1", CreateCNullReader},
      {&CLSID_COggImport, L"COggImport", L"Marlinda.OggImport.1", CreateCOggImport},
      {&CLSID_CWaveWriter, L"CWaveWriter", L"Marlinda.WaveWriter.1", CreateCWaveWriter},
  };
  return table;
}

}  // namespace marlinda
