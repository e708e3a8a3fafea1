#!/usr/bin/env bash
# Runs a static test program inside a stock Debian kernel booted by QEMU, and exits with the
# program's exit code. The build machine's own kernel may lack AF_ALG; the guest has it.
#
#   tests/kernel/run-guest.sh [--file HOST_PATH[=GUEST_PATH]]... [--env VAR=VALUE]... BINARY [ARGS...]
#
# --file copies a file or folder into the guest (default guest path: the host path), e.g. the
# vector folder; --env sets a variable for BINARY. BINARY must be statically linked: the guest
# holds busybox, the crypto modules and what --file adds, nothing else. BINARY runs as root
# with / as its working directory.
#
# Environment: TESSEL_GUEST_TIMEOUT (seconds for the whole QEMU run, default 300),
# TESSEL_GUEST_WATCHDOG (seconds BINARY may run inside the guest, default 240),
# TESSEL_GUEST_KERNEL_PKG (kernel package to use; default: the one linux-image-amd64 depends on),
# TESSEL_GUEST_ACCEL and TESSEL_GUEST_CPU (default tcg and max; on a host with a working
# /dev/kvm, kvm and host should be much faster), TESSEL_GUEST_QEMU_ARGS (extra QEMU arguments,
# split on spaces).
#
# The kernel package is unpacked once into build-deps/kernel/<package>/ and reused.
set -euo pipefail
export PATH=$PATH:/usr/sbin:/sbin  # depmod and modprobe

die() { echo "run-guest: $*" >&2; exit 1; }

root=$(cd "$(dirname "$0")/../.." && pwd)
host_timeout=${TESSEL_GUEST_TIMEOUT:-300}
watchdog=${TESSEL_GUEST_WATCHDOG:-240}
((watchdog < host_timeout)) || die "TESSEL_GUEST_WATCHDOG must be below TESSEL_GUEST_TIMEOUT"

files=() envs=()
while (($#)); do
  case $1 in
    --file) (($# >= 2)) || die "--file needs an argument"; files+=("$2"); shift 2 ;;
    --env) (($# >= 2)) || die "--env needs an argument"; [[ $2 == *=* ]] || die "--env wants VAR=VALUE"
           envs+=("$2"); shift 2 ;;
    --) shift; break ;;
    -*) die "unknown option $1" ;;
    *) break ;;
  esac
done
(($#)) || die "usage: tests/kernel/run-guest.sh [--file HOST[=GUEST]]... [--env VAR=VALUE]... BINARY [ARGS...]"
binary=$1; shift
[[ -f $binary && -x $binary ]] || die "$binary is not an executable file"
# A dynamic program would die in the guest with a confusing 'not found'; say it here instead.
if readelf -l "$binary" 2>/dev/null | grep -q 'Requesting program interpreter'; then
  die "$binary is dynamically linked; the guest has no libraries (link it with -static)"
fi

# --- host packages ------------------------------------------------------------------------------
packages=(qemu-system-x86 busybox-static cpio kmod)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "run-guest: installing ${missing[*]}"
  apt-get update -qq || echo "run-guest: apt-get update reported errors; trying with the lists we have"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# --- guest kernel (cached) ----------------------------------------------------------------------
cache=$root/build-deps/kernel
mkdir -p "$cache"
exec 9>"$cache/.lock"
flock 9  # two runs at once must not unpack into the same folder

kernel_package() {
  apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/ {print $2; exit}'
}
kpkg=${TESSEL_GUEST_KERNEL_PKG:-}
if [[ -z $kpkg ]]; then
  kpkg=$(kernel_package || true)
  if [[ -z $kpkg ]]; then
    apt-get update -qq || true
    kpkg=$(kernel_package || true)
  fi
  if [[ -z $kpkg ]]; then  # no package lists at all: any kernel unpacked earlier will do
    kpkg=$(cd "$cache" && ls -d linux-image-* 2>/dev/null | sort -V | tail -1 || true)
  fi
  [[ -n $kpkg ]] || die "cannot tell which kernel package linux-image-amd64 depends on"
fi
kroot=$cache/$kpkg
# Of the package's 400 MB of modules only the crypto folders are kept, so the cache stays small
# enough to carry between CI runs. A module from elsewhere needs its folder added here; the
# cache is then unpacked again because the list is recorded in it.
keep_dirs=(kernel/crypto kernel/arch/x86/crypto kernel/lib/crypto)
if [[ ! -f $kroot/.unpacked || $(cat "$kroot/.unpacked") != "${keep_dirs[*]}" ]]; then
  echo "run-guest: fetching $kpkg"
  rm -rf "$kroot" "$kroot.tmp" "$kroot.full" "$cache/download"
  mkdir -p "$cache/download"
  # apt-get download as root warns that its sandbox user cannot write here; that is harmless.
  (cd "$cache/download" && apt-get download -q "$kpkg" 2>&1 | grep -v -i 'unsandboxed' >&2) ||
    (cd "$cache/download" && ls ./*.deb >/dev/null 2>&1) || die "could not download $kpkg"
  debs=("$cache"/download/*.deb)
  [[ -f ${debs[0]} ]] || die "could not download $kpkg"
  dpkg -x "${debs[0]}" "$kroot.full"
  rm -rf "$cache/download"
  kv=$(cd "$kroot.full/lib/modules" && ls | head -1)
  [[ -n $kv ]] || die "$kpkg holds no modules"
  mkdir -p "$kroot.tmp/lib/modules/$kv"
  mv "$kroot.full/boot" "$kroot.tmp/"
  mv "$kroot.full/lib/modules/$kv"/modules.* "$kroot.tmp/lib/modules/$kv/"
  for d in "${keep_dirs[@]}"; do
    [[ -d $kroot.full/lib/modules/$kv/$d ]] || continue
    mkdir -p "$kroot.tmp/lib/modules/$kv/$(dirname "$d")"
    mv "$kroot.full/lib/modules/$kv/$d" "$kroot.tmp/lib/modules/$kv/$d"
  done
  rm -rf "$kroot.full"
  # The package leaves modules.dep to its install script; compute it here so modprobe can
  # resolve what each module needs.
  depmod -b "$kroot.tmp" "$kv"
  echo "${keep_dirs[*]}" >"$kroot.tmp/.unpacked"
  mv "$kroot.tmp" "$kroot"
  for old in "$cache"/linux-image-*; do  # kernels Debian has since replaced
    [[ $old == "$kroot" ]] || rm -rf "$old"
  done
fi
kver=$(cd "$kroot/lib/modules" && ls | head -1)
[[ -n $kver && -f $kroot/boot/vmlinuz-$kver ]] || die "no kernel image in $kroot (remove it to fetch again)"
flock -u 9

# --- initramfs ----------------------------------------------------------------------------------
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-guest.XXXXXX")
trap 'rm -rf "$work"' EXIT
initrd=$work/root
mkdir -p "$initrd"/{bin,sbin,usr/bin,usr/sbin,proc,sys,dev,tmp,tessel,lib/modules/"$kver"}

busybox=$(command -v busybox || true)
[[ -n $busybox ]] || busybox=/bin/busybox
cp "$busybox" "$initrd/bin/busybox"
for applet in $("$busybox" --list-full); do
  [[ -e $initrd/$applet ]] || ln -s /bin/busybox "$initrd/$applet"
done

# Load order matters only for the SIMD drivers: a built-in generic algorithm (aes, cbc, sha256)
# never pulls its faster driver in on demand, so the drivers are loaded here by name. Modules
# for CPU features the guest lacks fail to load; that is expected, the generic code is used.
modules=(af_alg algif_hash algif_skcipher algif_aead algif_rng
         cryptd crypto_simd aesni_intel
         sha1_ssse3 sha256_ssse3 sha512_generic sha512_ssse3
         gf128mul ghash_generic ghash_clmulni_intel ctr gcm authenc
         cfb ecb xts cmac libdes des_generic des3_ede_x86_64)
mdir=lib/modules/$kver
for m in "${modules[@]}"; do
  # --show-depends names the module and everything it needs, or says it is built in.
  deps=$(modprobe -d "$kroot" -S "$kver" --show-depends "$m" 2>/dev/null) ||
    die "module $m is not in $kroot (is its folder in keep_dirs?)"
  while read -r verb path _; do
    [[ $verb == insmod ]] || continue
    rel=${path#"$kroot"/}
    mkdir -p "$initrd/$(dirname "$rel")"
    cp -n "$path" "$initrd/$rel"
  done <<<"$deps"
done
cp "$kroot/$mdir"/modules.builtin* "$kroot/$mdir"/modules.order "$initrd/$mdir/"
depmod -b "$initrd" "$kver"

cp "$binary" "$initrd/tessel/"
name=$(basename "$binary")
for item in "${files[@]}"; do
  src=${item%%=*}
  dst=${item#*=}
  [[ $item == *=* ]] || dst=$src
  [[ -e $src ]] || die "--file $src does not exist"
  [[ $dst == /* ]] || die "--file guest path $dst must be absolute"
  mkdir -p "$initrd$(dirname "$dst")"
  cp -a "$src" "$initrd$dst"
done

quote() {  # POSIX-shell single quoting, for /init
  local s=${1//\'/\'\\\'\'}
  printf "'%s'" "$s"
}
command_line="/tessel/$(quote "$name")"
for a in "$@"; do command_line+=" $(quote "$a")"; done
env_lines=""
for e in "${envs[@]}"; do env_lines+="export ${e%%=*}=$(quote "${e#*=}")"$'\n'; done

cat >"$initrd/init" <<EOF
#!/bin/sh
# The guest's whole life: set up, load the crypto modules, run one program, power off.
export PATH=/bin:/sbin:/usr/bin:/usr/sbin HOME=/ TMPDIR=/tmp
# The serial console is a terminal; keep GoogleTest's summary free of colour codes so the
# host can count it.
export GTEST_COLOR=no
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
echo "TESSEL-GUEST-INIT \$(uname -r)"
notloaded=""
for m in ${modules[*]}; do
  modprobe \$m 2>/dev/null || notloaded="\$notloaded \$m"
done
[ -z "\$notloaded" ] || echo "guest: modules not loaded (expected for CPU features the guest lacks):\$notloaded"
echo "guest: /proc/crypto (name, driver, priority) for the algorithms of interest:"
awk -F': ' '
  /^name/ {n=\$2} /^driver/ {d=\$2}
  /^priority/ { if (n ~ /^(sha1|sha256|sha512|ghash|(cbc|ctr|ecb|gcm|cfb)\(aes\)|cbc\(des3_ede\)|hmac\(sha256\))\$/) printf "guest:   %-14s %-44s %s\n", n, d, \$2 }
' /proc/crypto | sort
${env_lines}cd /
echo "guest: running "$(quote "$command_line")" (watchdog ${watchdog} s)"
timeout -s KILL ${watchdog} ${command_line}
rc=\$?
[ \$rc -eq 137 ] && echo "guest: the program was killed (watchdog of ${watchdog} s, or signal 9)"
sync
echo "TESSEL-GUEST-EXIT \$rc"
poweroff -f
EOF
chmod 755 "$initrd/init"
(cd "$initrd" && find . | cpio -o -H newc --quiet | gzip -1) >"$work/initrd.cpio.gz"

# --- boot ---------------------------------------------------------------------------------------
# TCG with -cpu max by default: KVM is not usable on every build host (a nested, paravirtual
# /dev/kvm hangs a stock kernel), and max gives the guest AES-NI, PCLMUL and AVX2 so the SIMD
# drivers load. -no-reboot and panic=-1 turn a panic into an exit.
log=$work/console.log
qemu_extra=()
[[ -n ${TESSEL_GUEST_QEMU_ARGS:-} ]] && read -r -a qemu_extra <<<"$TESSEL_GUEST_QEMU_ARGS"
echo "run-guest: booting $kpkg with $name (timeout ${host_timeout} s)"
start=$SECONDS
set +e
timeout -k 10 "$host_timeout" qemu-system-x86_64 -accel "${TESSEL_GUEST_ACCEL:-tcg}" \
  -cpu "${TESSEL_GUEST_CPU:-max}" -m 512M -smp 1 -nographic -no-reboot -nic none \
  -kernel "$kroot/boot/vmlinuz-$kver" -initrd "$work/initrd.cpio.gz" \
  -append "console=ttyS0 quiet panic=-1 loglevel=3" "${qemu_extra[@]}" </dev/null 2>&1 |
  sed -u 's/\r$//' | tee "$log"
qemu_rc=${PIPESTATUS[0]}
set -e
elapsed=$((SECONDS - start))

if ! grep -q 'TESSEL-GUEST-INIT ' "$log"; then
  ((qemu_rc == 124 || qemu_rc == 137)) && echo "run-guest: QEMU ran into its ${host_timeout} s timeout" >&2
  grep -q 'Kernel panic' "$log" && echo "run-guest: the guest kernel panicked" >&2
  die "guest did not boot (no init marker after ${elapsed} s, qemu rc $qemu_rc)"
fi
marker=$(grep -oE 'TESSEL-GUEST-EXIT [0-9]+' "$log" | tail -1 || true)
if [[ -z $marker ]]; then
  ((qemu_rc == 124 || qemu_rc == 137)) && echo "run-guest: QEMU ran into its ${host_timeout} s timeout" >&2
  grep -q 'Kernel panic' "$log" && echo "run-guest: the guest kernel panicked" >&2
  die "guest gave no exit marker (qemu rc $qemu_rc after ${elapsed} s)"
fi
rc=${marker##* }
echo "run-guest: $name exited with $rc in the guest (${elapsed} s in QEMU)"
exit "$rc"
