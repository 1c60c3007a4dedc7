// The host's side of the engine: objects created by class identifier and driven through their
// interfaces alone. Every failure is thrown as a HostError that names the file or the class.
#pragma once

#include <marlinda.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/com_ptr.h"
#include "host/annotations.h"
#include "host/console.h"
#include "host/messages.h"
#include "host/timecode.h"
#include "host/wave_check.h"

namespace marlinda {

// The subject of messages about the pool's files.
constexpr const char* kTemporaryFolder = "the engine's temporary folder";

// S_OK if a new pool has a file for its samples, otherwise the reason why it has none.
HRESULT TryPoolFiles(IAudioPool* pool);

// Creates an object or throws with the remedy for a class that is not registered.
template <class I>
ComPtr<I> CreateObject(REFCLSID class_id, const char* class_name) {
  ComPtr<I> object;
  const HRESULT hr = CreateInstance(class_id, object);
  if (FAILED(hr)) throw Explain(hr, class_name, ExitStatus::kRegistration);
  return object;
}

// Another interface of an object that cannot be without it.
template <class I>
ComPtr<I> Query(IUnknown* object) {
  ComPtr<I> result = TryQuery<I>(object);
  if (!result) throw HResultError(E_NOINTERFACE);
  return result;
}

// A one-dimensional array of floats, all 0 at first, as the interfaces take it.
class FloatArray {
 public:
  explicit FloatArray(std::size_t count)
      : array_(SafeArrayCreateVector(VT_R4, 0, static_cast<ULONG>(count))) {
    if (array_ == nullptr) throw std::bad_alloc();
    std::ranges::fill(samples(), 0.0F);
  }
  // Takes over an array of floats.
  explicit FloatArray(SAFEARRAY* array) : array_(array) {}
  FloatArray(const FloatArray&) = delete;
  FloatArray& operator=(const FloatArray&) = delete;
  ~FloatArray() { SafeArrayDestroy(array_); }

  SAFEARRAY* get() const { return array_; }
  std::span<float> samples() const {
    return {static_cast<float*>(array_->pvData), array_->rgsabound[0].cElements};
  }

 private:
  SAFEARRAY* array_;
};

struct FilterIdentity {
  std::string class_name;  // both empty when the object has no class information
  std::string class_id;
};

FilterIdentity IdentityOf(IUnknown* object);

// For a command that was interrupted before it wrote anything about `subject`.
HostError NothingWritten(const std::string& subject);

struct AudioFormat {
  bool operator==(const AudioFormat&) const = default;

  LONG rate = 0;
  SHORT channels = 0;
};

ComPtr<IEditedAudio> NewDocument(const AudioFormat& format, int bits);
ComPtr<IAudioReader> Silence(__int64 frames, const AudioFormat& format);

// Keeps a reader open while it lives.
class OpenReader {
 public:
  explicit OpenReader(IAudioReader* reader) : reader_(reader) { Check(reader_->OpenDevice()); }
  ~OpenReader() { reader_->CloseDevice(); }
  OpenReader(const OpenReader&) = delete;
  OpenReader& operator=(const OpenReader&) = delete;

 private:
  IAudioReader* reader_;
};

// Reads the range of an open reader in blocks.
using BlockFunction = std::function<void(__int64 position, std::span<const float> samples)>;
void ForEachBlock(IAudioReader* reader, const FrameRange& range, std::size_t channels,
                  const BlockFunction& take);

// Labels and markers of an object; none where it has no such interfaces.
Annotations ReadAnnotations(IUnknown* object);
void AddAnnotations(IUnknown* object, const Annotations& annotations);

// Decoded audio, usually a take in a pool.
struct ImportedAudio {
  ComPtr<IAudioReader> reader;
  AudioFormat format;
  __int64 frames = 0;
};

// Fills an empty document with the audio.
void SetAudio(IEditedAudio* document, const ImportedAudio& audio);

// A pool that stores floats. Throws when its files cannot be made.
ComPtr<IAudioPool> NewPool();
// The latest take of the pool; without frames when there is none.
ImportedAudio LastTake(IAudioPool* pool);

// An input file, the filter that reads it and, unless it goes elsewhere, the pool it is read into.
class Source {
 public:
  // Asks the filter manager and, when that has no filter for the file, the built-in filters. With a
  // target of its own the source has no pool, and the caller runs the import.
  explicit Source(const std::string& file, IAudioWriter* target = nullptr);

  const std::string& file() const { return file_; }
  IUnknown* filter_object() const { return filter_.Get(); }
  const FilterIdentity& filter() const { return identity_; }

  // Properties that the filter reports before it decodes the file; nothing where it fails.
  std::optional<AudioFormat> Format() const;
  std::optional<int> BitsPerSample() const;
  std::optional<std::int64_t> BitRate() const;
  std::optional<__int64> Frames() const;
  Tags ReadTags() const;
  Annotations ReadAnnotations() const { return marlinda::ReadAnnotations(filter_.Get()); }
  std::optional<AcidData> ReadAcidData() const;

  // Decodes the whole file. Reports on standard error when it holds less than it promises.
  ImportedAudio Import(const Console& console);

  // What Import will return, without the reader, where the filter knows the exact length and can
  // import any part of the file. The rest of these members need that.
  std::optional<ImportedAudio> Expected() const;
  // Decodes these parts; elsewhere the audio is silent. Samples and peaks of the parts are the same
  // as after Import. Decodes the whole file where it holds less than it promises.
  ImportedAudio ImportParts(std::vector<FrameRange> parts, const Console& console);
  // Starts to decode a part and returns audio that is silent elsewhere. Its reader waits for frames
  // that are not decoded yet.
  ImportedAudio StartImport(const FrameRange& part);
  // The frames that the started import has read, once it has ended. Reports and throws as Import.
  std::optional<__int64> PollImport(const Console& console) const;

 private:
  // Without a target, the pool.
  void Initialize(IAudioWriter* target = nullptr);
  void Select(const FrameRange& part);
  ImportedAudio TakeOfRun(const Console& console) const;

  std::string file_;
  std::wstring engine_name_;
  ComPtr<IImportFilter> filter_;
  FilterIdentity identity_;
  ComPtr<IAudioPool> pool_;
};

// What a file holds beside its audio.
struct FileTexts {
  Tags tags;
  Annotations annotations;
  std::optional<AcidData> acid = {};
};

// One file to be written: WAV or, by its extension, MP3 or WMA, which take the texts but neither
// labels nor markers.
class FileExport {
 public:
  // Refuses at once what could not be written after a long import: another extension, a folder that
  // does not exist, one of the inputs itself.
  FileExport(const std::string& file, const std::vector<std::string>& inputs);

  // To be set before Run.
  void SetTexts(FileTexts texts) { texts_ = std::move(texts); }

  // Throws when so much audio does not fit in a WAV file.
  void RequireRoom(__int64 frames, const AudioFormat& format, int bits) const;

  // Writes the file and examines it. When interrupted, throws with kInterrupted and leaves a valid
  // file of the part that was written; a file that is incomplete for another reason is removed.
  // At 24 and 32 bits samples of full scale and above become the highest code. `bits` count for WAV
  // alone; the result for other kinds has no more than the size of the file. `driver` is the task
  // that runs the export filter's; without one the filter runs by itself.
  WaveFileFacts Run(IAudioReader* reader, int bits, const Console& console,
                    ICoreTask* driver = nullptr);

  IUnknown* filter_object() const { return filter_.Get(); }
  bool IsWave() const { return is_wave_; }

 private:
  void HandOver();
  std::optional<WaveFileFacts> Examine() const;

  std::string file_;
  ComPtr<IExportFilter> filter_;
  bool is_wave_ = true;
  FileTexts texts_;
};

}  // namespace marlinda
