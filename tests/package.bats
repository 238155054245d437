# The package: what is installed where, whether others can build on it, whether the manual is whole.
bats_require_minimum_version 1.5.0

setup() {
  unset CXXFLAGS # those of this build are not those of others
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
  "$1/annotate" written >/dev/null
  "$VQPACK" -p written /dev/null 2>&1 | grep -qx 'Total cycles: 1350000'
  run -1 "$1/transpose" /dev/full
  [[ $output = "Can't write output"* ]]
  run -1 "$1/count" - <<<"MEMRD 8"
}

# check_symbols LIBRARY [OPTION]: a program finds in it what the header declares, and names that begin
# with vqpack's namespace or the C++ library's.
check_symbols() {
  nm -P --defined-only --extern-only "$@" | sed -n '/:$/!s/ .*//p' >symbols
  grep -q '^_ZN6VQcomp6record' symbols
  scope='(N[VK]*)?(S[a-z]|[0-9]+(VQ|velk_|PRUV_header_t|vqpack|__gnu_cxx))'
  run -1 grep -Ev "^(velk_|DW\.ref\.|_Z(nw|dl)|_Z+(T[A-Z]|GV)?$scope)" symbols
}

@test "the installed tree holds what is published and nothing else" {
  install_to "$prefix"
  find "$prefix" -type f -printf '%P\n' | sed 's,^lib[^/]*/\([a-z0-9_-]*-linux-gnu[^/]*/\)\?,lib/,' |
    sed 's,-\(release\|debug\)\.cmake,-CONFIG.cmake,; s,\.so\.[0-9.]*$,.so.VERSION,' | LC_ALL=C sort >found
  (cd "$SOURCE" && ls {CHANGELOG,README,SECURITY}.md LICENSE bench/*.svg doc/*.{md,png} \
    examples/{CMakeLists.txt,*.c,*.cpp,*.py}) | sed 's,^,share/doc/vqpack/,' >more
  LC_ALL=C sort - more <<'END' | diff found -
bin/vqpack
bin/vqtrace
include/vqpack/vqcomp.h
include/vqpack/vqpack.h
include/vqpack/vqtypes.h
lib/cmake/vqpack/vqpack-config-CONFIG.cmake
lib/cmake/vqpack/vqpack-config-version.cmake
lib/cmake/vqpack/vqpack-config.cmake
lib/libvqcomp.a
lib/libvqpack.so.VERSION
lib/pkgconfig/libvqpack.pc
lib/pkgconfig/vqpack.pc
share/bash-completion/completions/vqpack
share/bash-completion/completions/vqtrace
share/fish/vendor_completions.d/vqpack.fish
share/fish/vendor_completions.d/vqtrace.fish
share/man/man1/vqpack.1
share/man/man1/vqtrace.1
share/man/man5/qubix.5
share/man/man5/velk.5
share/zsh/site-functions/_vqpack
share/zsh/site-functions/_vqtrace
END
  # It opens files of any size, also where offsets have 32 bits unless asked for.
  nm -D "$prefix/bin/vqpack" >needed
  run -1 grep -E ' (fopen|fseeko|ftello|stat)@' needed
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
  check_symbols "$(find "$prefix" -name libvqcomp.a)"
  mkdir built
  for compiler in "$CXX" $(command -v clang++ || true); do
    echo '#include <vqpack/vqcomp.h>' >alone.cpp
    eval "$compiler $flags -c alone.cpp $(pkg-config --cflags vqpack)"
    for example in "$prefix"/share/doc/vqpack/examples/*.cpp; do
      eval "$compiler $flags '$example' $(pkg-config --cflags --libs vqpack)" \
        "-o built/$(basename "$example" .cpp)"
    done
    check_examples built
  done
}

@test "a project takes the source in, and gets the library and nothing else" {
  cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.21)
project(simulator VERSION 1 LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
foreach(name coder xfopen generate plain failing_output)
  add_custom_target(${name})
endforeach()
if(NOT SOURCE)
  return()
endif()
include(FetchContent) # which ends with add_subdirectory()
FetchContent_Declare(vqpack SOURCE_DIR ${SOURCE})
FetchContent_MakeAvailable(vqpack)
foreach(example annotate count transpose)
  add_executable(${example} ${SOURCE}/examples/${example}.cpp)
  target_link_libraries(${example} PRIVATE vqpack::vqcomp)
endforeach()
install(TARGETS count)
END
  # configure NAME [SOURCE]: in a folder of that name, and lists the variables in its cache
  configure() {
    cmake -S . -B "$1" --no-warn-unused-cli -DSOURCE="${2-}" -DCMAKE_CXX_COMPILER="$CXX" >/dev/null
    sed -n 's/^\([^:]*\):.*=.*/\1/p' "$1/CMakeCache.txt" | sort >"$1.variables"
  }
  configure without
  configure with "$SOURCE"
  comm -13 without.variables with.variables >new
  run -1 grep -Ev '^(VQPACK|vqpack|FETCHCONTENT)_' new
  run -1 grep -e ' -W' -e -prefix-map with/compile_commands.json
  cmake --build with >/dev/null
  check_examples with
  cmake --install with --prefix "$prefix" >/dev/null
  [ "$(cd "$prefix" && find . -type f)" = ./bin/count ]
}

@test "the library for C exports what its header declares, and a program in C uses it" {
  install_to "$prefix"
  library=$(find "$prefix" -name libvqpack.so.0)
  readelf -d "$library" | grep SONAME | grep -q 'libvqpack\.so\.0\]'
  nm -P --defined-only --dynamic "$library" | sed -n 's/^\([^ @]*\)@.* T .*/\1/p' | sort >exported
  grep -o '^VQPACK_API.*(' "$prefix/include/vqpack/vqpack.h" | sed 's/.*[ *]\([a-z_]*\)($/\1/' | sort |
    diff exported -
  run -1 grep -v ^vqpack_ exported
  PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name libvqpack.pc)")
  export PKG_CONFIG_PATH
  eval "${CC:-cc} -std=c11 -Wall -Wextra -pedantic -Werror '$SOURCE/examples/copy.c'" \
    "$(pkg-config --cflags --libs libvqpack) '-Wl,-rpath,$(dirname "$library")' -o copy"
  for type in 0 1; do
    ./copy $type "$SAMPLES/sort.velk" copied.qu
    "$VQPACK" -q -v $type "$SAMPLES/sort.velk" packed.qu
    cmp copied.qu packed.qu
    ./copy 5 packed.qu copied.qu.gz
    "$VQPACK" -q -v $type copied.qu.gz again.qu
    cmp again.qu packed.qu
  done
  ./copy 4 "$SAMPLES/sort.velk" copied.qu
  "$VQPACK" copied.qu | cmp - "$SAMPLES/sort.velk"
  run -1 ./copy 1 "$SOURCE/README.md" bad.qu
  [ "$output" = "$SOURCE/README.md: Bad input line, at record 1" ]
  [ ! -e bad.qu ]
}

@test "the shared library exports what the header declares; DESTDIR" {
  cmake -S "$SOURCE" -B shared -DBUILD_SHARED_LIBS=ON -DVQPACK_TESTS=OFF -DVQPACK_BUILD_VQTRACE=OFF \
    -DCMAKE_CXX_COMPILER="$CXX" >/dev/null
  cmake --build shared >/dev/null
  DESTDIR="$PWD/staged" cmake --install shared --prefix "$prefix" >/dev/null
  [ ! -e "$prefix" ]
  mv "$PWD/staged$prefix" "$prefix"
  library=$(find "$prefix" -name libvqcomp.so)
  readelf -d "$library" | grep SONAME | grep -q 'libvqcomp\.so\.0\.1\]'
  check_symbols "$library" --dynamic
  run -1 grep '^_Z*N[VK]*6vqpack' symbols
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
