#!/bin/sh
# The Debian package CPack makes from this build tree: exactly the files an
# administrator expects, a unit that starts the installed program, a Depends
# line naming the package of every shared library the programs load, and no
# lintian error. Usage: deb_test.sh <build dir>
set -u
build=$1
for tool in cpack dpkg-deb lintian objdump ldd; do
  command -v "$tool" >/dev/null || { echo "$tool is not installed"; exit 77; }
done
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
fail() { echo "$*"; exit 1; }

(cd "$build" && cpack -G DEB -B "$out" >"$out/cpack.log" 2>&1) || { cat "$out/cpack.log"; fail "cpack failed"; }
deb=$(ls "$out"/kelvo_*_*.deb) || fail "no kelvo_*.deb"

expected='./usr/bin/kelvo
./usr/bin/kelvo-selftest
./usr/lib/systemd/system/kelvo.service
./usr/lib/sysusers.d/kelvo.conf
./usr/share/bash-completion/completions/kelvo
./usr/share/doc/kelvo/README.md
./usr/share/doc/kelvo/changelog.Debian.gz
./usr/share/doc/kelvo/copyright
./usr/share/kelvo/engine/
./usr/share/man/man1/kelvo-selftest.1.gz
./usr/share/man/man1/kelvo.1.gz'
# Every file, and the one directory that is there for its own sake.
actual=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ || $6 ~ /engine\/$/ {print $6}' | LC_ALL=C sort)
[ "$actual" = "$expected" ] || fail "file list differs:
$(printf '%s\n' "$expected" >"$out/e"; printf '%s\n' "$actual" >"$out/a"; diff "$out/e" "$out/a")"

dpkg-deb -x "$deb" "$out/root"
grep -qx 'ExecStart=/usr/bin/kelvo serve' "$out/root/usr/lib/systemd/system/kelvo.service" || fail "the unit does not start /usr/bin/kelvo"
zcat "$out/root/usr/share/man/man1/kelvo.1.gz" | grep -q '^\.SH "\{0,1\}EXIT STATUS' || fail "kelvo(1) has no EXIT STATUS section"
for program in kelvo kelvo-selftest; do
  [ -z "$(objdump -h "$out/root/usr/bin/$program" | grep '\.debug_')" ] || fail "$program is not stripped"
done

depends=$(dpkg-deb -f "$deb" Depends)
# The libraries the programs link directly (NEEDED), where the loader finds them.
needed=$(objdump -p "$build/kelvo" "$build/kelvo-selftest" | awk '/NEEDED/ {print $2}' | sort -u)
for lib in $(ldd "$build/kelvo" "$build/kelvo-selftest" | awk -v needed=" $(echo $needed) " \
             '$2 == "=>" && index(needed, " " $1 " ") {print $3}' | sort -u); do
  # usrmerge: dpkg may know the file under /lib or /usr/lib.
  package=$(dpkg -S "$lib" 2>/dev/null || dpkg -S "$(realpath "$lib")" 2>/dev/null || dpkg -S "${lib#/usr}" 2>/dev/null)
  package=$(printf '%s\n' "$package" | head -n 1 | cut -d: -f1)
  [ -n "$package" ] || fail "no package owns $lib"
  case ", $depends" in
    *", $package "* | *", $package,"* | *", $package") ;;
    *) fail "Depends lacks $package (for $lib): $depends" ;;
  esac
done

lintian --fail-on error --suppress-tags initial-upload-closes-no-bugs "$deb" || fail "lintian reports errors"
echo "ok: $(basename "$deb"), Depends: $depends"
