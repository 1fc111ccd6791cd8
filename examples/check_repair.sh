#!/usr/bin/env bash
# Records with one example, cuts the movie in its middle, repairs it with the other, and plays the result.
#   check_repair.sh RECORD REPAIR FOLDER
set -euo pipefail
record=$1 repair=$2
cd "$3"
rm -f cut.mp4 repaired.mp4
"$record" cut.mp4 2
truncate -s $(($(stat -c %s cut.mp4) / 2)) cut.mp4
if ffprobe -v error cut.mp4; then echo "the cut movie plays" >&2; exit 1; fi
"$repair" cut.mp4 cut.mp4.index repaired.mp4
errors=$(ffmpeg -nostdin -v error -xerror -i repaired.mp4 -f null - 2>&1)
[ -z "$errors" ] || { echo "$errors" >&2; exit 1; }
frames=$(ffprobe -v error -count_frames -select_streams v -show_entries stream=nb_read_frames -of csv=p=0 repaired.mp4)
echo "$frames frames came back"
[ "$frames" -gt 15 ] && [ "$frames" -lt 60 ]
