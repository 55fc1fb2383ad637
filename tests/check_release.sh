#!/bin/sh
# check_release.sh PROGRAM...: whether what is shipped is hardened and small. One line for each fault; needs binutils.
set -eu
status=0

fault() {
  echo "$program: $1" >&2
  status=1
}

for program in "$@"; do
  header=$(readelf -hW "$program")
  segments=$(readelf -lW "$program")
  dynamic=$(readelf -dW "$program")
  symbols=$(readelf --dyn-syms -W "$program")

  echo "$header" | grep -q 'Type: *DYN' || fault "not position-independent"
  echo "$dynamic" | grep -q 'FLAGS_1.*PIE' || fault "not position-independent"
  echo "$segments" | grep -q 'GNU_RELRO' || fault "no RELRO"
  echo "$dynamic" | grep -q 'FLAGS.*NOW' || fault "RELRO is partial: symbols are bound late"
  echo "$symbols" | grep -q '__stack_chk_fail' || fault "no stack protector"
  echo "$symbols" | grep -q '_chk@GLIBC' || fault "no FORTIFY"
  echo "$symbols" | grep -q '__glibcxx_assert_fail' || fault "no assertions of the standard library"
  echo "$segments" | grep 'GNU_STACK' | grep -q ' RW ' || fault "the stack is executable"
  echo "$segments" | grep 'LOAD' | grep -q 'RWE' && fault "memory that is writable and executable"
  # With code apart from data, what is executable begins and ends with a page.
  [ "$(echo "$segments" | grep -c 'LOAD.* R E ')" = 1 ] || fault "code is not in one segment of its own"
  echo "$segments" | grep 'LOAD.* R E ' | grep -q ' 0x0*000 *0x0*0 ' && fault "code shares its segment with the headers"
  echo "$dynamic" | grep -qE 'RPATH|RUNPATH|TEXTREL' && fault "a run path or text relocations"

  stripped=$(mktemp)
  strip -o "$stripped" "$program"
  size=$(stat -c %s "$stripped")
  rm -f "$stripped"
  [ "$size" -lt 1572864 ] || fault "$size bytes when stripped, more than 1.5 MiB"
  echo "$program: $size bytes when stripped"
done
exit $status
