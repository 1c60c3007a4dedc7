// The host's access to the engine: creates objects by class identifier and uses only their
// interfaces. Failures throw a HostError that names the file or the class, or an HResultError.
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

// The subject of messages about the files in which a pool stores audio.
constexpr const char* kTemporaryFolder = "the engine's temporary folder";

// Returns S_OK if `pool` has a file for its samples, otherwise the error. Pass a new pool, because
// the function may write a sample.
HRESULT TryPoolFiles(IAudioPool* pool);

// Creates an object. Throws with a remedy if the class is not registered.
template <class I>
ComPtr<I> CreateObject(REFCLSID class_id, const char* class_name) {
  ComPtr<I> object;
  const HRESULT hr = CreateInstance(class_id, object);
  if (FAILED(hr)) throw Explain(hr, class_name, ExitStatus::kRegistration);
  return object;
}

// Queries an interface that the object must have.
template <class I>
ComPtr<I> Query(IUnknown* object) {
  ComPtr<I> result = TryQuery<I>(object);
  if (!result) throw HResultError(E_NOINTERFACE);
  return result;
}

// A one-dimensional SAFEARRAY of floats, in which the interfaces pass samples. Initially all 0.
class FloatArray {
 public:
  explicit FloatArray(std::size_t count)
      : array_(SafeArrayCreateVector(VT_R4, 0, static_cast<ULONG>(count))) {
    if (array_ == nullptr) throw std::bad_alloc();
    std::ranges::fill(samples(), 0.0F);
  }
  // Takes ownership of an array of floats.
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
  std::string class_name;  // like class_id, empty if the object has no class information
  std::string class_id;
};

FilterIdentity IdentityOf(IUnknown* object);

// The error of a command that was interrupted before it wrote a file. `subject` is the input or
// output file, or empty.
HostError NothingWritten(const std::string& subject);

struct AudioFormat {
  bool operator==(const AudioFormat&) const = default;

  LONG rate = 0;
  SHORT channels = 0;
};

// Return text such as "1 channel" and "44100 Hz, 2 channels".
std::string ChannelCount(int channels);
std::string Describe(const AudioFormat& format);

ComPtr<IEditedAudio> NewDocument(const AudioFormat& format, int bits);
ComPtr<IAudioReader> Silence(__int64 frames, const AudioFormat& format);

// Keeps a reader open while this object exists.
class OpenReader {
 public:
  explicit OpenReader(IAudioReader* reader) : reader_(reader) { Check(reader_->OpenDevice()); }
  ~OpenReader() { reader_->CloseDevice(); }
  OpenReader(const OpenReader&) = delete;
  OpenReader& operator=(const OpenReader&) = delete;

 private:
  IAudioReader* reader_;
};

// Replaces NaN by 0 and infinity by full scale.
void MakeFinite(std::span<float> samples);

// Returns the labels and markers of an object, or none if it lacks the interfaces.
Annotations ReadAnnotations(IUnknown* object);
void AddAnnotations(IUnknown* object, const Annotations& annotations);

// Decoded audio, usually a take: the audio of one import or recording in a pool.
struct ImportedAudio {
  ComPtr<IAudioReader> reader;
  AudioFormat format;
  __int64 frames = 0;
};

// Receives consecutive blocks of samples. NaN is already replaced by 0, infinity by full scale.
using SampleFunction =
    std::function<void(const AudioFormat& format, std::span<const float> samples)>;

// Creates a pool that stores floats. Throws if its files cannot be created.
ComPtr<IAudioPool> NewPool();
// Returns the latest take of the pool, or audio without frames if there is none.
ImportedAudio LastTake(IAudioPool* pool);

// An input file, its import filter and, if no target is given, the pool that receives the audio.
class Source {
 public:
  // Uses the filter that the filter manager chooses or, if it finds none, a built-in filter. If
  // `target` is given, the source has no pool, and the caller runs the import.
  explicit Source(const std::string& file, IAudioWriter* target = nullptr);

  const std::string& file() const { return file_; }
  IUnknown* filter_object() const { return filter_.Get(); }
  const FilterIdentity& filter() const { return identity_; }

  // Properties that the filter reports without decoding the file, or nothing if the filter fails.
  std::optional<AudioFormat> Format() const;
  std::optional<int> BitsPerSample() const;
  std::optional<std::int64_t> BitRate() const;
  // True if the samples may be floats, which can be NaN or infinite.
  bool MayHoldFloats() const { return BitsPerSample().value_or(32) >= 32; }
  std::optional<__int64> Frames() const;
  Tags ReadTags() const;
  Annotations ReadAnnotations() const { return marlinda::ReadAnnotations(filter_.Get()); }
  std::optional<AcidData> ReadAcidData() const;

  // Decodes the whole file. Reports on standard error if the file holds less than it announces.
  ImportedAudio Import(const Console& console);

  // Decodes the file, or only `part`, on another thread and passes the samples to `take`, without a
  // pool. Returns format and length. Rethrows an exception of `take`. Pass `part` only if Expected
  // returns a value. Without `part`, reports a damaged file as Import does. With `part`, a damaged
  // file only makes the returned length shorter.
  ImportedAudio Stream(const SampleFunction& take, const Console& console,
                       const std::optional<FrameRange>& part = {});
  // Makes the filter's next run write to `target`, or to the pool if `target` is null.
  void Initialize(IAudioWriter* target = nullptr);

  // Returns the format and length if the filter knows the exact length and can import any part of
  // the file, otherwise nothing. Call the members below only if Expected returns a value.
  std::optional<ImportedAudio> Expected() const;
  // Decodes the parts; other frames are silent. If the file holds less than it announces, decodes
  // all of it.
  ImportedAudio ImportParts(std::vector<FrameRange> parts, const Console& console);
  // Starts to decode a part and returns audio that is silent elsewhere. The reader of the audio
  // waits for frames that are not decoded yet.
  ImportedAudio StartImport(const FrameRange& part);
  // Returns nothing while the import of StartImport runs. Afterwards, returns the number of frames
  // that were imported. Reports and throws as Import does.
  std::optional<__int64> PollImport(const Console& console) const;

 private:
  void Run(const Console& console);
  void Select(const FrameRange& part);
  ImportedAudio TakeOfRun(const Console& console) const;
  void CheckRun(const ImportedAudio& audio, const Console& console) const;

  std::string file_;
  std::wstring engine_name_;
  ComPtr<IImportFilter> filter_;
  FilterIdentity identity_;
  ComPtr<IAudioPool> pool_;
  __int64 announced_ = 0;  // the length reported before an import of the whole file
};

// The data that an output file stores in addition to its audio.
struct FileTexts {
  Tags tags;
  Annotations annotations;
  std::optional<AcidData> acid = {};
};

// An output file. Its extension selects the kind: WAV, MP3 or WMA. MP3 and WMA hold no labels or
// markers.
class FileExport {
 public:
  // Create the object before a long import. Throws for an unsupported extension, a missing folder,
  // or a file that is also an input.
  FileExport(const std::string& file, const std::vector<std::string>& inputs);

  // Call this before Run.
  void SetTexts(FileTexts texts) { texts_ = std::move(texts); }

  // Throws if the audio does not fit in a WAV file.
  void RequireRoom(__int64 frames, const AudioFormat& format, int bits) const;

  // Writes the file and checks it. If interrupted, throws with kInterrupted and keeps a valid file
  // with the part already written. Removes a file that is incomplete for another reason.
  //
  // Samples of full scale and above become the highest code, and NaN becomes silence. `bits` only
  // applies to WAV. For other kinds, the result holds only the file's size. `driver` is a task that
  // runs the export filter; if null, the filter runs itself. `floats` states whether samples may be
  // NaN; false saves time.
  WaveFileFacts Run(IAudioReader* reader, int bits, const Console& console,
                    ICoreTask* driver = nullptr, bool floats = true);
  // Removes the written file.
  void Remove() const;

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
