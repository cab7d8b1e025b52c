# Sourced by the Windows builds: a module made for Windows must load on a bare system, so it may
# import only the system's own DLLs (no MinGW runtime, no FFTW, zlib or libpng DLLs).
#
#   windows_imports_only_system MODULE WHO    # prints the imports; exits 1 naming a stray one

windows_system_dlls=(kernel32.dll user32.dll gdi32.dll advapi32.dll shell32.dll ole32.dll oleaut32.dll
    comdlg32.dll imm32.dll shlwapi.dll rpcrt4.dll version.dll winmm.dll wininet.dll wsock32.dll
    ws2_32.dll dxgi.dll msvcrt.dll comctl32.dll uxtheme.dll dwmapi.dll)

windows_imports_only_system () {
    local module=$1 who=$2 imports name
    imports=$(x86_64-w64-mingw32-objdump -p "$module" | sed -n 's/^\s*DLL Name: //p' | tr 'A-Z' 'a-z' | sort -u)
    echo "$who: $(basename "$module") imports:" $imports >&2
    for name in $imports; do
        case " ${windows_system_dlls[*]} " in
            *" $name "*) ;;
            *) echo "$who: $(basename "$module") depends on $name, which Windows does not provide" >&2; exit 1 ;;
        esac
    done
}
