// Writes WMA files with the system's Windows Media writer and a profile of one audio stream.

#include <dshow.h>
#include <mmreg.h>
#include <wmsdkidl.h>

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <vector>

#include "core/com_ptr.h"
#include "core/handle.h"
#include "dshow/graph_filter.h"
#include "export/encoded_file.h"

namespace marlinda {
namespace {

constexpr WORD kStreamNumber = 1;
constexpr std::uint64_t kWmTicksPerSecond = 10'000'000;

// Loads the library when it is needed, because the library is an optional part of the system.
class WindowsMedia {
 public:
  WindowsMedia() : library_(LoadLibraryExW(L"wmvcore.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32)) {
    if (library_ == nullptr) throw CodecError();
  }
  WindowsMedia(const WindowsMedia&) = delete;
  WindowsMedia& operator=(const WindowsMedia&) = delete;
  ~WindowsMedia() { FreeLibrary(library_); }

  // Calls the library's function `name` with the arguments and a pointer for the new object.
  template <class Interface, class... Arguments>
  ComPtr<Interface> Create(const char* name, Arguments... arguments) const {
    const FARPROC address = GetProcAddress(library_, name);
    HRESULT(WINAPI * create)(Arguments..., Interface**) = nullptr;
    static_assert(sizeof create == sizeof address);
    std::memcpy(&create, &address, sizeof create);
    ComPtr<Interface> object;
    if (create == nullptr || FAILED(create(arguments..., object.GetAddressOf()))) {
      throw CodecError();
    }
    return object;
  }

 private:
  const HMODULE library_;
};

void CheckCodec(HRESULT hr) {
  if (FAILED(hr)) throw CodecError();
}

// True if the stream has the rate and channels of the settings.
bool Matches(IWMStreamConfig* stream, const EncoderSettings& settings) {
  const auto properties = TryQuery<IWMMediaProps>(stream);
  DWORD size = 0;
  if (!properties || FAILED(properties->GetMediaType(nullptr, &size))) return false;
  std::vector<BYTE> memory(size);
  auto* const type = reinterpret_cast<WM_MEDIA_TYPE*>(memory.data());
  if (size < sizeof *type || FAILED(properties->GetMediaType(type, &size))) return false;
  // WM_MEDIA_TYPE and AM_MEDIA_TYPE have the same members.
  const auto* const format = WaveFormatOf(*reinterpret_cast<const AM_MEDIA_TYPE*>(type));
  return format != nullptr &&
         static_cast<int>(format->nSamplesPerSec) == settings.samples_per_sec &&
         format->nChannels == settings.channels;
}

// Returns the stream with the best bit rate of all codecs, by IsBetterBitRate.
ComPtr<IWMStreamConfig> ChooseStream(IWMProfileManager* manager, const EncoderSettings& settings) {
  const auto codecs = TryQuery<IWMCodecInfo>(manager);
  DWORD codec_count = 0;
  if (!codecs || FAILED(codecs->GetCodecInfoCount(MEDIATYPE_Audio, &codec_count))) {
    throw CodecError();
  }
  const DWORD wanted = static_cast<DWORD>(settings.bit_rate_kbit) * 1000;
  ComPtr<IWMStreamConfig> chosen;
  DWORD best = 0;
  for (DWORD codec = 0; codec < codec_count; ++codec) {
    DWORD format_count = 0;
    codecs->GetCodecFormatCount(MEDIATYPE_Audio, codec, &format_count);
    for (DWORD format = 0; format < format_count; ++format) {
      ComPtr<IWMStreamConfig> stream;
      DWORD rate = 0;
      if (FAILED(codecs->GetCodecFormat(MEDIATYPE_Audio, codec, format, stream.GetAddressOf())) ||
          FAILED(stream->GetBitrate(&rate)) || !Matches(stream.Get(), settings)) {
        continue;
      }
      if (!chosen || IsBetterBitRate(rate, best, wanted)) {
        chosen = stream;
        best = rate;
      }
    }
  }
  if (!chosen) throw CodecError();
  return chosen;
}

class WmaFile final : public EncodedFile {
 public:
  explicit WmaFile(const EncoderSettings& settings)
      : samples_per_sec_(static_cast<std::uint64_t>(settings.samples_per_sec)),
        bytes_per_frame_(PcmFormatOf(settings).nBlockAlign),
        writer_(media_.Create<IWMWriter, IUnknown*>("WMCreateWriter", nullptr)) {
    SetProfile(settings);
    SetInput(settings);
    SetTags(settings.tags);
    const std::wstring path = WidePath(settings.path);
    CheckCodec(writer_->SetOutputFilename(path.c_str()));
    const bool is_new = GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES;
    const HRESULT hr = writer_->BeginWriting();
    if (FAILED(hr)) {
      if (is_new) DeleteFileW(path.c_str());
      throw HResultError(hr);
    }
    is_open_ = true;
  }

  ~WmaFile() override {
    if (is_open_) writer_->EndWriting();
  }

  void Write(std::span<const std::byte> pcm) override {
    ComPtr<INSSBuffer> buffer;
    Check(writer_->AllocateSample(static_cast<DWORD>(pcm.size()), buffer.GetAddressOf()));
    BYTE* data = nullptr;
    Check(buffer->GetBuffer(&data));
    std::memcpy(data, pcm.data(), pcm.size());
    Check(buffer->SetLength(static_cast<DWORD>(pcm.size())));
    Check(
        writer_->WriteSample(0, position_ * kWmTicksPerSecond / samples_per_sec_, 0, buffer.Get()));
    position_ += pcm.size() / bytes_per_frame_;
  }

  void Finish() override {
    is_open_ = false;
    Check(writer_->EndWriting());
  }

 private:
  static std::wstring WidePath(const std::string& path) {
    std::wstring wide(path.size(), L'\0');
    const int length = MultiByteToWideChar(CP_ACP, 0, path.data(), static_cast<int>(path.size()),
                                           wide.data(), static_cast<int>(wide.size()));
    wide.resize(static_cast<std::size_t>(length));
    return wide;
  }

  void SetProfile(const EncoderSettings& settings) {
    const auto manager = media_.Create<IWMProfileManager>("WMCreateProfileManager");
    ComPtr<IWMProfile> profile;
    CheckCodec(manager->CreateEmptyProfile(WMT_VER_9_0, profile.GetAddressOf()));
    const auto stream = ChooseStream(manager.Get(), settings);
    CheckCodec(stream->SetStreamNumber(kStreamNumber));
    CheckCodec(stream->SetStreamName(L"Audio"));
    CheckCodec(stream->SetConnectionName(L"Audio"));
    CheckCodec(profile->AddStream(stream.Get()));
    CheckCodec(writer_->SetProfile(profile.Get()));
  }

  void SetInput(const EncoderSettings& settings) {
    const AudioType format(PcmFormatOf(settings));
    AM_MEDIA_TYPE type = format.View();
    ComPtr<IWMInputMediaProps> input;
    CheckCodec(writer_->GetInputProps(0, input.GetAddressOf()));
    CheckCodec(input->SetMediaType(reinterpret_cast<WM_MEDIA_TYPE*>(&type)));
    CheckCodec(writer_->SetInputProps(0, input.Get()));
  }

  void SetTags(const WideTags& tags) {
    const auto header = TryQuery<IWMHeaderInfo>(writer_.Get());
    const std::pair<const wchar_t*, const std::wstring&> attributes[] = {
        {L"Title", tags.title},  {L"Author", tags.artist},  {L"WM/AlbumTitle", tags.album},
        {L"WM/Year", tags.year}, {L"WM/Genre", tags.genre},
    };
    for (const auto& [name, text] : attributes) {
      // Omits texts whose length, with the terminator, does not fit in 16 bits.
      const std::size_t size = (text.size() + 1) * sizeof(wchar_t);
      if (!header || text.empty() || size > 0xFFFF) continue;
      CheckCodec(header->SetAttribute(0, name, WMT_TYPE_STRING,
                                      reinterpret_cast<const BYTE*>(text.c_str()),
                                      static_cast<WORD>(size)));
    }
  }

  const std::uint64_t samples_per_sec_;
  const std::size_t bytes_per_frame_;
  const WindowsMedia media_;
  const ComPtr<IWMWriter> writer_;
  std::uint64_t position_ = 0;
  bool is_open_ = false;
};

}  // namespace

std::unique_ptr<EncodedFile> CreateWmaFile(const EncoderSettings& settings) {
  return std::make_unique<WmaFile>(settings);
}

}  // namespace marlinda
