#!/usr/bin/env bash
# Makes what the fuzzers begin with: make_seeds.sh MERU_COMMAND FOLDER
# FOLDER/seeds/NAME gets the inputs, FOLDER/found/NAME is emptied for what a run finds.
set -euo pipefail
meru=$1 folder=$2
rm -rf "$folder/seeds" "$folder/found"
mkdir -p "$folder"/seeds/{json,base64,index,repair,raw_packets} "$folder"/found/{json,base64,index,repair,raw_packets}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

seed() {  # NAME INDEX MOVIE: inputs of the index and the repair fuzzer
  cp "$2" "$folder/seeds/index/$1"
  { cat "$2"; printf '\n%%%%%%%%\n'; cat "$3"; } >"$folder/seeds/repair/$1"
}

record() {  # NAME ARGUMENTS
  local name=$1
  shift
  "$meru" record --seconds 0.4 --v-bitrate 50 --a-bitrate 24 --index "$work/$name.idx" -o "$work/$name.mp4" "$@" \
    >/dev/null 2>&1
  seed "$name" "$work/$name.idx" "$work/$name.mp4"
}

record both --test --size 32x32 --fps 10
record pictures --test --size 32x32 --fps 10 --no-audio
record sound --test --no-video

# Cut, an older format, no parameters, and a record of every kind of number.
head -c 2000 "$work/both.mp4" >"$work/cut.mp4"
seed cut "$work/both.idx" "$work/cut.mp4"
grep '^[#{]' "$work/both.idx" >"$work/header"
sed 's/"qv":"[^"]*"/"qv":""/' "$work/header" >"$work/bare.idx"
printf ',48,9,,,512,1;1,,8,1024,,,;,,7,512,256,512,;\n' >>"$work/bare.idx"
seed bare "$work/bare.idx" "$work/cut.mp4"
{ sed 's/version=2/version=1/' "$work/header"; printf '0,48,9,0,0,512,1;1,57,8,0,0,0,1;0,65,7,512,512,512,0;\n'; } >"$work/one.idx"
seed one "$work/one.idx" "$work/cut.mp4"
{
  cat "$work/header"
  printf -- '-1,-48,-9,-1,-1,-1,-1;\n,2147483648,2147483647,9223372036854775807,-9223372036854775808,,;\n4,,,,,,;\n'
} >"$work/strange.idx"
seed strange "$work/strange.idx" "$work/cut.mp4"

number=0
while IFS= read -r line; do
  number=$((number + 1))
  printf '%s\n' "$line" >"$folder/seeds/json/line$number"
  [[ $line =~ \"qv\":\"([^\"]*)\" ]] && printf '%s' "${BASH_REMATCH[1]}" >"$folder/seeds/base64/qv$number"
done < <(cat "$work"/*.idx | grep '^{')
printf '{"a":[1,{"b":"x"}],"c":true,"d":-7}' >"$folder/seeds/json/nested"
printf 'Zm9vYg==' >"$folder/seeds/base64/padded"

# Sessions of packets: NAME MOVIE SCRIPT, the script in printf's escapes. It begins with a byte for the movie (the
# container, what is announced, side index, further output) and one for the host (begins with good packets, two
# threads). Each push is a byte: medium, cut, and stamp, as raw_packets_fuzz.cpp reads it, here in octal.
packets() {
  printf "$3" >"$folder/seeds/raw_packets/$1"
  for stream in v a; do
    printf '\n%%%%%%%%\n' >>"$folder/seeds/raw_packets/$1"
    if [[ -f $work/$2.$stream ]]; then cat "$work/$2.$stream" >>"$folder/seeds/raw_packets/$1"; fi
  done
}
copy() { ffmpeg -nostdin -v error -y -i "$work/$1.mp4" -map "0:$2" -c copy "${@:4}" "$work/$1.$3"; }
copy both v v -bsf:v h264_mp4toannexb,h264_metadata=aud=insert -f h264
copy both a a -f adts
in_turn=$(printf '\\000\\001%.0s' {1..12})
for container in 0 1 2 7; do
  packets "movie$container" both "\\30$container\\000$in_turn"
  packets "threads$container" both "\\10$container\\003$in_turn"
done
packets pictures both '\020\000\016\050\000\002'
packets sound both '\041\000\017\050\001\003'
packets built_in none "\\000\\000$in_turn"
packets uneven none '\002\001\016\377\016\377\016\377\001\001\001\017\377'
packets reordered both '\000\000\000\001\060\061\000\001\100\101\000\001\060\061\012\000\013\000\000\001\014\001\015\000\014\373'
packets strange_stamps both '\000\000\160\000\161\001\160\004\161\005\000\001\160\006\161\012\120\177\377\377\377\377\377\377\360\000\001'
packets garbage both '\101\001\006\100\007\100\010\003\011\003\006\377\007\377\000\001\000\001'
packets nothing none '\000\000'
packets unannounced none '\020\000\016\050\017\377\017\377'
