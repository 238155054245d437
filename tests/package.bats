# The package: what is installed where, whether others can build on it, whether the manual is whole.
bats_require_minimum_version 1.5.0

setup() {
  cd "$BATS_TEST_TMPDIR"
  prefix="$PWD/a prefix"
  flags="-std=c++20 -Wall -Wextra -pedantic -Werror"
}

# install_to PREFIX: the whole tree.
install_to() { cmake --install "$BUILD" --prefix "$1" >/dev/null; }

# outside_project BINARY_DIR: builds the installed examples as a project of its own.
outside_project() {
  cmake -S "$prefix/share/doc/vqpack/examples" -B "$1" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$CXX" >/dev/null
  cmake --build "$1" >/dev/null
}

# check_examples DIR: runs them.
check_examples() {
  "$1/count" "$SAMPLES/sort.velk" >counted
  diff counted - <<'END'
CDRD64B    agent 0     75
LNWR64B    agent 0     2142
MEMRD64B   agent 0     1746
RDINV64B   agent 0     1037
END
  "$VQPACK" -q "$SAMPLES/sort.velk" | "$1/count" | diff counted -
  "$1/transpose" written >/dev/null
  [ "$("$1/count" written | grep -c ' 32768$')" = 4 ]
  "$VQPACK" written | sed -n 4p | grep -qx '  MEMWR64B 20002000 1'
  run -1 "$1/transpose" /dev/full
  [[ $output = "Can't write output"* ]]
  run -1 "$1/count" - <<<"MEMRD 8"
}

@test "the installed tree holds what is published and nothing else" {
  install_to "$prefix"
  find "$prefix" -type f -printf '%P\n' | sed 's,^lib[^/]*/\([a-z0-9_-]*-linux-gnu[^/]*/\)\?,lib/,' |
    sed 's,-\(release\|debug\)\.cmake,-CONFIG.cmake,' | sort >found
  LC_ALL=C sort <<'END' | diff found -
bin/vqpack
include/vqpack/vqcomp.h
lib/cmake/vqpack/vqpack-config-CONFIG.cmake
lib/cmake/vqpack/vqpack-config-version.cmake
lib/cmake/vqpack/vqpack-config.cmake
lib/libvqcomp.a
lib/pkgconfig/vqpack.pc
share/bash-completion/completions/vqpack
share/doc/vqpack/CHANGELOG.md
share/doc/vqpack/LICENSE
share/doc/vqpack/README.md
share/doc/vqpack/SECURITY.md
share/doc/vqpack/bench/comparison.svg
share/doc/vqpack/examples/CMakeLists.txt
share/doc/vqpack/examples/count.cpp
share/doc/vqpack/examples/transpose.cpp
share/fish/vendor_completions.d/vqpack.fish
share/man/man1/vqpack.1
share/man/man5/qubix.5
share/man/man5/velk.5
share/zsh/site-functions/_vqpack
END
  # Nothing but the C and C++ runtime is needed to run it.
  run -0 ldd "$prefix/bin/vqpack"
  run ! grep -Ev 'linux-vdso|ld-linux|lib(c|m|stdc\+\+|gcc_s)\.so' <<<"$output"
}

@test "an outside project finds the library by CMake, also where the tree was moved to" {
  install_to "$PWD/elsewhere"
  mv elsewhere "$prefix"
  outside_project built
  check_examples built
}

@test "and by pkg-config; the header stands alone" {
  install_to "$prefix"
  export PKG_CONFIG_PATH
  PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name vqpack.pc)")
  mkdir built
  for compiler in "$CXX" $(command -v clang++ || true); do
    echo '#include <vqpack/vqcomp.h>' >alone.cpp
    eval "$compiler $flags -c alone.cpp $(pkg-config --cflags vqpack)"
    for example in count transpose; do
      eval "$compiler $flags '$prefix/share/doc/vqpack/examples/$example.cpp'" \
        "$(pkg-config --cflags --libs vqpack) -o built/$example"
    done
    check_examples built
  done
}

@test "the shared library exports what the header declares; DESTDIR" {
  cmake -S "$SOURCE" -B shared -DBUILD_SHARED_LIBS=ON -DVQPACK_TESTS=OFF \
    -DCMAKE_CXX_COMPILER="$CXX" >/dev/null
  cmake --build shared >/dev/null
  DESTDIR="$PWD/staged" cmake --install shared --prefix "$prefix" >/dev/null
  [ ! -e "$prefix" ]
  mv "$PWD/staged$prefix" "$prefix"
  library=$(find "$prefix" -name libvqcomp.so)
  readelf -d "$library" | grep SONAME | grep -q 'libvqcomp\.so\.0\.1\]'
  nm -DC --defined-only "$library" | cut -d' ' -f3- >exported
  grep -q '^VQcomp::record(' exported
  run ! grep -Ev '^((typeinfo|typeinfo name|vtable) for )?(VQ|velk_|PRUV_header_t)|std::' exported
  outside_project built
  check_examples built
  # The program does without it.
  "$prefix/bin/vqpack" -q "$SAMPLES/sort.velk" /dev/null
}

# options: all that the program knows, found by trying each letter.
options() {
  local first second
  for first in {a..z} {A..Z}; do
    case $first in
      n | m) for second in {a..z} {A..Z}; do echo "$first$second"; done ;;
      *) echo "$first" ;;
    esac
  done | while read -r letters; do
    "$VQPACK" "-$letters" 0 </dev/null 2>&1 | grep -aq 'unknown switch' || echo "$letters"
  done | sort
}

@test "the manual and the completions tell every option, and no other" {
  options >known
  [ "$(grep -c . known)" -gt 20 ]
  # same NAME: whether the options on standard input are the known ones.
  same() { sort | diff known - || { echo "in $1"; false; }; }
  sed -n 's/^\.It Fl \([[:alpha:]]*\).*/\1/p' "$SOURCE/man/vqpack.1" | same man
  completions=$SOURCE/completions
  sed -n "s/.*options='\(.*\)'/\1/p" "$completions/vqpack.bash" | tr ' ' '\n' | tr -d - | same bash
  sed -n "s/^  '.*\*\?-\([[:alpha:]]*\)\[.*/\1/p" "$completions/_vqpack" | same zsh
  sed -n 's/^complete -c vqpack -o \([[:alpha:]]*\) .*/\1/p' "$completions/vqpack.fish" | same fish
}

@test "the hex examples of qubix(5) are what the program writes" {
  man=$SOURCE/man/qubix.5
  # file NAME: the lines that the page shows for it
  file() { sed -n "/^\\$ cat $1.velk/,/^\\$ vqpack/p" "$man" | grep -v '^\$' >"$1.velk"; }
  for name in five four; do
    file $name
    sed -n "s/^\\$ vqpack\( .* $name.qu\)$/\1/p" "$man" | xargs "$VQPACK" -q
    sed -n "/^\\$ od -Ax -tx1 $name.qu/,/^\.Ed/p" "$man" | grep '^0' >wanted
    od -Ax -tx1 $name.qu | head -n -1 | diff wanted -
  done
}
