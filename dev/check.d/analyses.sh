# What looks at the sources without running them.
# shellcheck shell=bash

sources() {
    git ls-files -co --exclude-standard -- "$@"
}

# Scripts, by their suffix or by what their first line calls:
# scripts SUFFIX PROGRAM, both as expressions
scripts() {
    # shellcheck disable=SC2016  # it is for awk
    sources | xargs awk -v suffix="[.]$1\$" -v first="^#!.*[/ ]$2\$" '
        FNR == 1 && (FILENAME ~ suffix || $0 ~ first) { print FILENAME }
        { nextfile }'
}

format_check() {
    sources '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run --Werror
}

shell_check() {
    scripts sh '(ba|da)?sh' | xargs shellcheck
}

python_check() {
    scripts py 'python3' | xargs pylint --score=n
}

# Each public header alone, in both languages that it promises.
headers_check() {
    local header compiler
    for header in include/ttyline/*.h; do
        for compiler in gcc clang; do
            "$compiler" -std=c99 -pedantic-errors -Wall -Wextra -Werror \
                -Iinclude -x c -fsyntax-only "$header" || return
            "$compiler" -std=c++17 -pedantic-errors -Wall -Wextra -Werror \
                -Iinclude -x c++ -fsyntax-only "$header" || return
        done
    done
}

# One configuration says what each source is made with, and uses no prepared
# headers: an include that a file has forgotten is an error there.
tidy_check() {
    cmake --preset debug-clang && nice dev/tidy
}

cppcheck_check() {
    cppcheck --quiet --error-exitcode=1 --std=c++17 --inline-suppr -j 2 \
        --enable=warning,style,performance,portability \
        --suppress=useStlAlgorithm --suppress=constParameterCallback \
        -DTTYLINE_FACE=face_any -I. -Iinclude common tty vc kit programs
}

# A longer form of what every configuration runs for some seconds.
soak_check() {
    cmake --preset debug-gcc && cmake --build --preset debug-gcc &&
        TTYLINE_SOAK_SECONDS=110 ctest --preset debug-gcc -R '^SoakTest' &&
        tests/soak/run 120
}
