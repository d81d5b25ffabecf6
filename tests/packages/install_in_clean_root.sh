#!/usr/bin/env bash
# Makes the Debian packages, installs each of them in a bare Debian 12 of its own, and runs what they bring from /usr: the
# sample, the daemon, the check of its output; manual pages, the service unit, completion.
#   install_in_clean_root.sh BUILD_DIR [DEBOOTSTRAP_MIRROR]
# Exit status 77, after a line that says why, where a clean root cannot be made: not root, no debootstrap, no mirror.
set -euo pipefail
build=$(readlink -f "$1")
mirror=${2:-http://deb.debian.org/debian}
skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "FAILED: $*"; exit 1; }
[ "$(id -u)" -eq 0 ] || skip "a clean root needs root"
command -v debootstrap >/dev/null || skip "debootstrap is not installed"
command -v dpkg-shlibdeps >/dev/null || skip "dpkg-dev is not installed"

# --- the packages -------------------------------------------------------------------------------------------
work=$(mktemp -d /tmp/tqp_packages_XXXXXX)
cleanup() {
  for mounted in "$work"/root*/proc; do
    if mountpoint -q "$mounted"; then umount "$mounted"; fi
  done
  rm -rf "$work"
}
trap cleanup EXIT
(cd "$build" && cpack -B "$work/packages" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; fail "cpack"; }
ls -l "$work"/packages/*.deb

# --- a bare Debian ------------------------------------------------------------------------------------------
# Kept for the next run where a directory for it is named: unpacking takes most of the time.
base=${TQP_CLEAN_ROOT_CACHE:-$work}/base.tar
if [ ! -s "$base" ]; then
  timeout 150 debootstrap --variant=minbase bookworm "$work/base" "$mirror" >"$work/debootstrap.log" 2>&1 ||
    { tail -3 "$work/debootstrap.log"; skip "debootstrap of $mirror failed, or took more than 150 s"; }
  chroot "$work/base" apt-get update -qq || skip "apt-get update in the clean root"
  tar -C "$work/base" -cf "$base.part" . && mv "$base.part" "$base"
  rm -rf "$work/base"
fi

# fresh ROOT: the bare system in a directory of its own, with /proc.
fresh() {
  mkdir -p "$1" && tar -C "$1" -xf "$base"
  mount -t proc proc "$1/proc"
}
# install ROOT PACKAGE...: with what it depends on, and nothing that was not asked for.
install() {
  local root=$1
  shift
  mkdir -p "$root/packages"
  for name in "$@"; do cp "$work/packages/${name}"_*.deb "$root/packages/"; done
  chroot "$root" sh -c 'DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends /packages/*.deb' \
    >"$work/apt.log" 2>&1 || { tail -20 "$work/apt.log"; fail "installation of $*"; }
}

# --- each package by itself ---------------------------------------------------------------------------------
declare -A programs=([tqp]="tqp tqu_db_upload tqcheck tq_reset" [tqp-tools]="tqshow tqtop tq_sample" [tqp-web]="tqweb")
for package in tqp tqp-tools tqp-web; do
  compgen -G "$work/packages/${package}_*.deb" >/dev/null || { echo "$package: not built here"; continue; }
  root=$work/root_$package
  fresh "$root"
  if [ "$package" = tqp-web ]; then install "$root" tqp tqp-web; else install "$root" "$package"; fi
  for program in ${programs[$package]}; do
    chroot "$root" /usr/bin/"$program" --version || fail "$program --version"
    chroot "$root" /usr/bin/"$program" --help >/dev/null || fail "$program --help"
    chroot "$root" bash -c "source /usr/share/bash-completion/completions/$program; COMP_CWORD=1
      _tqp_complete /usr/bin/$program --h $program; [ \"\${COMPREPLY[*]}\" = --help ]" || fail "completion of $program"
  done
  if [ "$package" = tqp ]; then
    [ "$(chroot "$root" stat -c %U /var/lib/tqp/logs)" = tqp ] || fail "the user tqp"
    cp "$root/lib/systemd/system/tqp@.service" "$work/" 2>/dev/null || cp "$root/usr/lib/systemd/system/tqp@.service" "$work/"
  fi
  umount "$root/proc"
  rm -rf "$root"
done

# --- both together: the sample from /usr --------------------------------------------------------------------
root=$work/root_all
fresh "$root"
install "$root" tqp tqp-tools
chroot "$root" sh -ec '
  tq_sample --dir /var/lib/tqp --testrun 1001
  tqcheck --dir /var/lib/tqp --testrun 1001
  chown -R tqp:tqp /var/lib/tqp
  su -s /bin/sh tqp -c "tqp -t 1001 -W /var/lib/tqp -V _"
  tqshow --dir /var/lib/tqp --testrun 1001 --check
  tq_reset --dir /var/lib/tqp --testrun 1001 --yes
' || fail "the sample"
chroot "$root" dpkg -P tqp tqp-tools >/dev/null 2>&1 || fail "purge"
[ ! -e "$root/usr/bin/tqp" ] || fail "tqp is still there"
umount "$root/proc"

# --- the unit and the pages ---------------------------------------------------------------------------------
if command -v systemd-analyze >/dev/null; then
  sed "s|/usr/bin/tqp|$build/bin/tqp|; /^Documentation=/d; s|^User=tqp|User=nobody|; s|^Group=tqp|Group=nogroup|" \
    "$work/tqp@.service" >"$work/tqp@1.service"
  systemd-analyze verify --man=no "$work/tqp@1.service" || fail "systemd-analyze verify"
else
  echo "systemd-analyze is not installed: the unit was not verified"
fi
echo "all packages installed and run"
