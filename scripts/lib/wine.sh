# What scripts/wine-session and the keeper of its display share. Sourced; expects `root` and `prefix`.
#
# $prefix.lock     every session holds it shared; held alone to make the prefix or to stop the server
# $prefix.display  "<display> <keeper's process id>"; locked for as long as the keeper lives

wine=/usr/lib/wine/wine64 # the package's wrapper would print a hint about a missing 32-bit Wine
wine_server=/usr/lib/wine/wineserver64 # also ends and awaits the server of a 32-bit prefix
[[ ${TESSALY_WINE_BITS:-64} == 64 ]] || wine=$root/scripts/lib/wine-x86-root

# Ends what is left running in the prefix: Wine's helper processes would stay for some seconds.
stop_wine_server() {
  WINEPREFIX=$prefix "$wine_server" -k >/dev/null 2>&1 || true
  # Wine notes in the prefix which folder below /tmp holds the server's socket, and never removes it.
  local name=
  [[ ! -s $prefix/wineserver ]] || name=$(<"$prefix/wineserver")
  if [[ $name == wine-?????? && -d /tmp/$name ]]; then
    rm -f "/tmp/$name"/server-*/{lock,socket}
    rmdir "/tmp/$name"/server-* "/tmp/$name" 2>/dev/null || true
  fi
  rm -f "$prefix/wineserver"
}
