# Shared by scripts/wine-session and its display keeper. Source it with `root` and `prefix` set.
#
# $prefix.lock     shared lock of each session; exclusive lock to stop the server
# $prefix.start    exclusive lock of the session that prepares the prefix
# $prefix.display  "<display> <keeper's process id>"; locked while the keeper runs

wine=/usr/lib/wine/wine64 # the package's wrapper would print a hint about a missing 32-bit Wine
wine_server=/usr/lib/wine/wineserver64 # can also end a 32-bit prefix's server and wait for it
[[ ${TESSALY_WINE_BITS:-64} == 64 ]] || wine=$root/scripts/lib/wine-x86-root

# Ends the prefix's processes, because Wine's helpers would run for some more seconds.
stop_wine_server() {
  WINEPREFIX=$prefix "$wine_server" -k >/dev/null 2>&1 || true
  # A few processes miss the end of the server and would wait for the server forever.
  local process
  for process in $(grep -lszFx "WINEPREFIX=$prefix" /proc/[0-9]*/environ | cut -d / -f 3); do
    [[ $(readlink "/proc/$process/exe") != */lib/wine/* ]] || kill -KILL "$process" 2>/dev/null || true
  done
  # The prefix records which folder below /tmp holds the server's socket. Wine never removes that folder.
  local name=
  [[ ! -s $prefix/wineserver ]] || name=$(<"$prefix/wineserver")
  if [[ $name == wine-?????? && -d /tmp/$name ]]; then
    rm -f "/tmp/$name"/server-*/{lock,socket}
    rmdir "/tmp/$name"/server-* "/tmp/$name" 2>/dev/null || true
  fi
  rm -f "$prefix/wineserver"
}
