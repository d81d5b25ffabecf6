#!/usr/bin/env bash
# Kills the loader and its database server again and again while a live run writes, and compares what was brought in with one
# load of the finished files into SQLite.
#   server_kills.sh BUILD_DIR postgresql|clickhouse|cluster [KILLS [SECONDS [SEED]]]
# KILLS: at random moments (200): of three, one ends the loader, one a server, one both; a server is started again at once.
# SECONDS: of the live run, with a switch every 3 s, an instance that comes and one that goes, and late rows (40). SEED: of
# the moments; printed. Every table must be the same, row by row.
set -euo pipefail
[ $# -ge 2 ] || { sed -n '2,8s/^# *//p' "$0"; exit 1; }
bin=$(cd "$1/bin" && pwd)
engine=$2
kills=${3:-200}
seconds=${4:-40}
seed=${5:-$RANDOM}
top=$(mktemp -d "${TMPDIR:-/tmp}/server_kills.XXXXXX")
children=()
leave() {
  for child in "${children[@]}"; do kill -9 "$child" 2>/dev/null || true; done
  rm -rf "$top"
}
trap leave EXIT
cd "$top"
RANDOM=$seed
echo "seed $seed"

# --- a server -----------------------------------------------------------------------------------------------------------

coproc server { exec "$bin/private_server" "$engine" 2>server.txt; }
exec {to_server}>&"${server[1]}" {from_server}<&"${server[0]}"
url=
while [ -z "$url" ] && read -r word rest <&"$from_server"; do
  case $word in
    directory) export PGPASSFILE=$rest/passwords ;;
    url) url=$rest ;;
    skipped:)
      echo "skipped: $rest"
      [ -z "${TQP_NO_SKIPS:-}" ] || exit 1
      exit 77
      ;;
  esac
done
[ -n "$url" ] || { cat server.txt; exit 1; }
tell_server() {
  echo "$1" >&"$to_server"
  read -r answer <&"$from_server"
  [ "$answer" = "done" ] || { echo "the server: $1: $answer"; exit 1; }
}
servers=1
[ "$engine" != cluster ] || servers=2

# --- a live run -----------------------------------------------------------------------------------------------------------

"$bin/tq_sample" --dir work --testrun 1 --partitions 1 --online --quiet --rate 400000 --seconds "$seconds" --end \
  --switch-every 3 --add-after 4 --remove-after 6 >agents.txt 2>&1 &
agents=$!
children+=("$agents")
for ((i = 0; i < 300; ++i)); do
  [ "$(grep -cs port agents.txt || true)" != 2 ] || break
  sleep 0.1
done
port=$(awk '{ for (i = 1; i < NF; ++i) if ($i ~ /port/) { print $(i + 1); exit } }' agents.txt | tr -dc 0-9)
"$bin/tqp" -t 1 -W "$top/work" -l "$port" -m 0 -N "$agents" >tqp.txt 2>&1 &
tqp=$!
children+=("$tqp")

# --- kills ------------------------------------------------------------------------------------------------------------------

load=("$bin/tqu_db_upload" --dir "$top/work" --testrun 1 --database)
loader_kills=0 server_kills=0
loader=
for ((i = 0; i < kills; ++i)); do
  if [ -z "$loader" ] || ! kill -0 "$loader" 2>/dev/null; then
    "${load[@]}" "$url" --follow >>loader.txt 2>&1 &
    loader=$!
  fi
  sleep "$((RANDOM % 2)).$(printf %03d $((RANDOM % 1000)))"
  which=$((RANDOM % 3)) number=$((RANDOM % servers))
  if [ $which != 1 ]; then
    kill -9 "$loader" 2>/dev/null && loader_kills=$((loader_kills + 1))
    wait "$loader" 2>/dev/null || true
    loader=
  fi
  if [ $which != 0 ]; then
    tell_server "kill $number"
    tell_server "start $number"
    server_kills=$((server_kills + 1))
  fi
done
if [ -n "$loader" ]; then
  kill "$loader" || true
  wait "$loader" || true
fi
wait "$agents" || { echo "the agents failed"; cat agents.txt; exit 1; }
kill -s RTMIN+3 "$tqp" 2>/dev/null || true
wait "$tqp" || { echo "tqp failed"; cat tqp.txt; exit 1; }
"${load[@]}" "$url" >last.txt 2>&1 || { cat last.txt loader.txt; exit 1; }
"${load[@]}" "sqlite:$top/whole.sqlite" --blobs 1 >whole.txt 2>&1 || { cat whole.txt; exit 1; }
echo "$loader_kills kills of the loader, $server_kills of a server; $(find work/logs/TR1 -maxdepth 1 -name '2*' | wc -l) partitions"
"${load[@]}" "$url" --verify
"$bin/compare_databases" "sqlite:$top/whole.sqlite" "$url" 1
