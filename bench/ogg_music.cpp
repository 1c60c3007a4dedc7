#include "bench/ogg_music.h"

#include <vorbis/vorbisenc.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "import/codec_memory.h"

namespace marlinda::testing {

std::vector<unsigned char> EncodeMusic(int channels, long samples_per_sec, float quality,
                                       std::int64_t frames) {
  // Frees memory that the encoder does not free.
  CodecMemory memory;
  const CodecMemory::Use use(memory);
  std::vector<unsigned char> file;
  vorbis_info info;
  vorbis_comment comment;
  vorbis_dsp_state dsp;
  vorbis_block block;
  ogg_stream_state stream;
  ogg_page page;
  ogg_packet packet;
  const auto append = [&] {
    file.insert(file.end(), page.header, page.header + page.header_len);
    file.insert(file.end(), page.body, page.body + page.body_len);
  };
  vorbis_info_init(&info);
  vorbis_encode_init_vbr(&info, channels, samples_per_sec, quality);
  vorbis_comment_init(&comment);
  vorbis_analysis_init(&dsp, &info);
  vorbis_block_init(&dsp, &block);
  ogg_stream_init(&stream, 1);
  ogg_packet headers[3];
  vorbis_analysis_headerout(&dsp, &comment, &headers[0], &headers[1], &headers[2]);
  for (ogg_packet& header : headers) ogg_stream_packetin(&stream, &header);
  while (ogg_stream_flush(&stream, &page) != 0) append();

  std::minstd_rand random(1);
  std::uniform_real_distribution<float> noise(-0.1F, 0.1F);
  constexpr int kBlockFrames = 4096;
  // A block without frames ends the stream.
  int count = -1;
  for (std::int64_t done = 0; count != 0; done += count) {
    count = static_cast<int>(std::min<std::int64_t>(kBlockFrames, frames - done));
    float** const input = vorbis_analysis_buffer(&dsp, kBlockFrames);
    for (int i = 0; i < count; ++i) {
      const double seconds = static_cast<double>(done + i) / static_cast<double>(samples_per_sec);
      const double fade = std::exp(-8.0 * std::fmod(seconds, 0.5));
      for (int channel = 0; channel < channels; ++channel) {
        const double tone = std::sin(seconds * 2764.6 * (channel + 1)) + std::sin(seconds * 4147.0);
        input[channel][i] = static_cast<float>(0.4 * fade * tone) + noise(random);
      }
    }
    vorbis_analysis_wrote(&dsp, count);
    while (vorbis_analysis_blockout(&dsp, &block) == 1) {
      vorbis_analysis(&block, nullptr);
      vorbis_bitrate_addblock(&block);
      while (vorbis_bitrate_flushpacket(&dsp, &packet) != 0) ogg_stream_packetin(&stream, &packet);
      while (ogg_stream_pageout(&stream, &page) != 0) append();
    }
  }
  while (ogg_stream_flush(&stream, &page) != 0) append();
  ogg_stream_clear(&stream);
  vorbis_block_clear(&block);
  vorbis_dsp_clear(&dsp);
  vorbis_comment_clear(&comment);
  vorbis_info_clear(&info);
  return file;
}

}  // namespace marlinda::testing
