# shellcheck shell=bash disable=SC2154
# An emulated 64-bit ARM machine that runs one command: Debian's kernel, its packages and the
# project's arm64 build, or its packages, in an initial RAM disk, nothing else. The first program
# there is a small script, or systemd. To be sourced after common.sh.

GUEST=build/arm64-guest
GUEST_PACKAGES=(mount findutils bash coreutils dash grep sed kmod util-linux procps
  iproute2 nftables openssl
  python3 python3-pytest python3-pytest-xdist python3-jsonschema
  libboost-thread1.74.0 libboost-chrono1.74.0 libcjson1 libssl3 libsystemd0 libfmt9
  systemd systemd-sysv base-passwd libc-bin diffutils apt
  libboost-date-time1.74.0 libboost-system1.74.0)
# Of the kernel's modules: whatever networks are made of, and what that stands on.
GUEST_MODULES=(kernel/net kernel/lib kernel/crypto kernel/arch/arm64/crypto
  kernel/drivers/net/veth.ko kernel/drivers/net/dummy.ko kernel/drivers/net/ifb.ko)

# apt that knows of nothing installed and of this architecture alone.
guest_apt() {
  local at=$PWD/$GUEST/packages
  mkdir -p "$at/partial"
  apt-get -q -y -o Dir::State::status=/dev/null -o Dir::Cache::archives="$at" \
    -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache= \
    -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o APT::Install-Recommends=false \
    -o APT::Sandbox::User=root -o Debug::NoLocking=1 "$@" </dev/null
}

# unpack ROOT PACKAGE...: without running what packages do when they are installed. dpkg there
# counts them as installed.
unpack() {
  local root=$1 state=$1/var/lib/dpkg package name list
  shift
  mkdir -p "$state"/{info,updates,triggers}
  echo 1 >"$state/info/format"
  for package in "$@"; do
    list=$state/list
    dpkg-deb --fsys-tarfile "$package" | tar -xv --keep-directory-symlink -C "$root" \
      --exclude='./usr/share/doc' --exclude='./usr/share/man' --exclude='./usr/share/locale' |
      sed -e 's/^\.//' -e 's,\(.\)/$,\1,' -e 's,^/$,/.,' >"$list"
    name=$(dpkg-deb -f "$package" Package)
    [[ $(dpkg-deb -f "$package" Multi-Arch) != same ]] || name+=:arm64
    mv "$list" "$state/info/$name.list"
    dpkg-deb -f "$package" | sed '/^Package:/a Status: install ok installed'
    echo
  done >"$state/status"
}

# What the packages would have made of their own when they were installed, and what the machine's
# own systemd does: the units that would only take an emulated processor's time are masked.
configure() {
  local root=$1 unit at=$1/etc/systemd/system
  cp "$root/usr/share/base-passwd/passwd.master" "$root/etc/passwd"
  cp "$root/usr/share/base-passwd/group.master" "$root/etc/group"
  printf '127.0.0.1 localhost\n' >"$root/etc/hosts"
  mkdir -p "$root"/{home,opt,srv}
  : >"$root/etc/machine-id"
  # What changes the machine it runs on looks for this.
  : >"$root/emulated-machine"
  install -m 755 tests/arm64/init tests/arm64/init-systemd "$root/"
  mkdir -p "$at/multi-user.target.wants"
  install -m 644 tests/arm64/job.service "$at/"
  ln -s ../job.service "$at/multi-user.target.wants/"
  for unit in {dev-hugepages,dev-mqueue,sys-kernel-debug,sys-kernel-tracing}.mount \
    proc-sys-fs-binfmt_misc.automount {getty-static,kmod-static-nodes,ldconfig,modprobe@}.service \
    systemd-{binfmt,firstboot,journal-catalog-update,modules-load,random-seed}.service \
    systemd-{remount-fs,update-utmp,update-utmp-runlevel}.service; do
    ln -s /dev/null "$at/$unit"
  done
  # The project's place may lie in a directory that is emptied at each start.
  mkdir -p "$root/etc/tmpfiles.d"
  echo 'd /tmp 1777 root root -' >"$root/etc/tmpfiles.d/tmp.conf"
}

# archive FILE DIRECTORY: as the kernel unpacks it into its first file system. Uncompressed: the
# emulated processor would take longer over it than anything else.
archive() {
  (
    cd "$2"
    find . -print0 | sort -z | cpio --quiet --null --create --format=newc --owner=0:0
  ) >"$1.new"
  mv "$1.new" "$1"
}

# Makes the kernel and the file system of Debian's packages, anew when what it consists of changes.
make_guest() {
  local kernel wanted root=$GUEST/root version modules directory
  kernel=$(apt-cache show linux-image-arm64:arm64 | awk '/^Depends:/ { print $2; exit }')
  [[ -n $kernel ]] || die "the package lists have no linux-image-arm64:arm64 (apt-get update?)"
  wanted="$kernel $(cat tests/arm64/{init*,job.service} script/lib/arm64_guest.sh | cksum)"
  [[ ! -e $GUEST/made || $(<"$GUEST/made") != "$wanted" ]] || return 0
  say "unpacking $kernel and ${#GUEST_PACKAGES[@]} packages with what they need"
  rm -rf "$GUEST"
  guest_apt --download-only install "${GUEST_PACKAGES[@]}" >/dev/null
  (
    cd "$GUEST/packages"
    apt-get -q -o APT::Sandbox::User=root download "$kernel:arm64" >/dev/null
  )
  mkdir -p "$GUEST/kernel" "$root"/usr/{bin,sbin,lib}
  mkdir -p "$root"/{dev,proc,sys,tmp,run,root,var/log}
  for directory in bin sbin lib; do ln -s "usr/$directory" "$root/$directory"; done
  ln -s /run "$root/var/run"
  dpkg-deb -x "$GUEST"/packages/linux-image-*.deb "$GUEST/kernel"
  rm "$GUEST"/packages/linux-image-*.deb
  unpack "$root" "$GUEST"/packages/*.deb
  cp "$GUEST"/kernel/boot/vmlinuz-* "$GUEST/vmlinuz"
  version=$(cd "$GUEST"/kernel/lib/modules && echo *)
  modules=$ROOT/$root/lib/modules/$version
  mkdir -p "$modules"
  (
    cd "$GUEST/kernel/lib/modules/$version"
    cp -r --parents modules.builtin* modules.order "${GUEST_MODULES[@]}" "$modules"
  )
  depmod -b "$root" "$version"
  configure "$root"
  archive "$GUEST/root.cpio" "$root"
  rm -rf "$GUEST/kernel" "$root"
  printf '%s' "$wanted" >"$GUEST/made"
}

# The project in the same place as here, because programs and tests find their files by it.
add_project() {
  local stage=$GUEST/project
  rm -rf "$stage"
  mkdir -p "$stage$ROOT/build/arm64"
  cp -r --parents tests tools docs examples deploy README.md "$stage$ROOT"
  cp build/arm64/CMakeCache.txt "$stage$ROOT/build/arm64/"
  cp -r build/arm64/bin build/arm64/lib "$stage$ROOT/build/arm64/"
  find "$stage" -name '*.a' -delete
  find "$stage$ROOT/build" -type f \( -path '*/bin/*' -o -name '*.so*' \) \
    -exec aarch64-linux-gnu-strip --strip-debug {} +
  printf '%s\n' "cd $ROOT || exit" "$1" >"$stage/job"
  archive "$GUEST/project.cpio" "$stage"
  rm -rf "$stage"
}

# The project's Debian packages there, in the same place as here, and their tests.
add_packages() {
  local stage=$GUEST/project packages=build/package-arm64
  rm -rf "$stage"
  mkdir -p "$stage$ROOT"
  cp -r --parents tests docs CMakeLists.txt "$stage$ROOT"
  cp --parents "$packages"/*.deb "$packages/tree/build/CMakeCache.txt" "$stage$ROOT"
  printf '%s\n' "cd $ROOT || exit" "$1" >"$stage/job"
  archive "$GUEST/project.cpio" "$stage"
  rm -rf "$stage"
}

# start_guest INIT: with that first program.
start_guest() {
  cat "$GUEST/root.cpio" "$GUEST/project.cpio" >"$GUEST/initrd"
  # A console, and no other device.
  qemu-system-aarch64 -machine virt -cpu cortex-a72 -smp 2 -m 3072 -nodefaults -nographic \
    -nic none -no-reboot -serial stdio -kernel "$GUEST/vmlinuz" -initrd "$GUEST/initrd" \
    -append "console=ttyAMA0 quiet panic=-1 sysctl.kernel.panic_on_oops=1 rdinit=$1 \
      systemd.show_status=0 systemd.getty_auto=0"
}

# to_its_end SECONDS INIT: runs the machine; the output and the status of its job.
to_its_end() {
  local console=$GUEST/console status
  timeout --foreground "$1" bash -c "$(declare -f start_guest); GUEST=$GUEST; start_guest $2" \
    </dev/null |
    stdbuf -oL tr -d '\r' | tee "$console" || true
  status=$(sed -n 's/^the job ended with status //p' "$console")
  if [[ -z $status ]]; then
    say "the machine did not come to the end of its job"
    status=1
  fi
  return "$status"
}

# in_guest SECONDS COMMAND: runs it in the project's directory there. After make_guest.
in_guest() {
  add_project "$2"
  say "a 64-bit ARM machine runs: ${2:0:100}"
  to_its_end "$1" /init
}

# under_systemd SECONDS COMMAND: the same beside systemd, with the project's packages instead of its
# build. After make_guest and script/package.
under_systemd() {
  add_packages "$2"
  say "a 64-bit ARM machine with systemd runs: ${2:0:100}"
  to_its_end "$1" /init-systemd
}

guest_shell() {
  add_project "exec setsid -c bash -i"
  start_guest /init
}

# Prints a command that runs these tests (arguments of pytest) in the guest, and what failed once
# more alone: emulated programs are slow, and more than one at a time make each other late. For the
# same reason all deadlines are five times as long.
guest_pytest() {
  local pytest="IPSLA_DEADLINE_SCALE=5 IPSLA_BUILD_DIR=$ROOT/build/arm64"
  pytest+=" python3 -m pytest -o cache_dir=/tmp/pytest-cache -v -rs $*"
  printf '%s' "$pytest || $pytest -n 0 --last-failed --last-failed-no-failures none"
}
