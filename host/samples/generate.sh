#!/usr/bin/env bash
# Uses ffmpeg to make the files with which "marlinda doctor" tests decoders: a tone of a quarter of a second in each
# kind of file. AVI, MOV, MPG and WMV files also have a tiny black picture.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

# tone KIND RATE OPTIONS...: makes the file of that kind.
tone() {
  local kind=$1 rate=$2
  shift 2
  ffmpeg -v error -y -f lavfi -i "color=black:s=32x32:r=25:d=0.25" \
    -f lavfi -i "aevalsrc='0.5*sin(880*PI*t)':s=$rate:d=0.25" -map 1:a "$@" \
    -map_metadata -1 -fflags +bitexact -flags:v +bitexact -flags:a +bitexact "tone.$kind"
}

tone aiff 8000
tone au 8000
tone avi 8000 -map 0:v -c:v mjpeg -pix_fmt yuvj420p -c:a pcm_s16le -reserve_index_space 64
tone flac 8000 -metadata_header_padding 0
tone mov 8000 -map 0:v -c:v mjpeg -pix_fmt yuvj420p -c:a aac
tone mp3 16000 -b:a 32k
tone mpg 32000 -map 0:v -c:v mpeg1video -c:a mp2 -b:a 32k
tone ogg 8000 -c:a libvorbis
tone wav 8000
tone wma 16000 -c:a wmav2 -b:a 32k
tone wmv 16000 -map 0:v -c:v wmv2 -c:a wmav2 -b:a 32k
