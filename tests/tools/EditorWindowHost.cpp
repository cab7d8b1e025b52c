// SPDX-License-Identifier: GPL-3.0-or-later
// quenda-editor-window (Windows): a bare VST2 host that opens the plug-in's editor in a window
// of its own, as a DAW does, and keeps it on screen for a while so it can be photographed.
// Usage: quenda-editor-window PLUGIN.dll [seconds]. Prints "window X Y WIDTH HEIGHT" (the
// outer frame on the screen) once the editor is showing.

#include <aeffectx.h>
#include <windows.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace
{
VstIntPtr VSTCALLBACK hostCallback (AEffect*, int opcode, int, VstIntPtr, void*, float)
{
    return opcode == audioMasterVersion ? 2400 : 0;
}

LRESULT CALLBACK frameProcedure (HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (message == WM_CLOSE)
    {
        PostQuitMessage (0);
        return 0;
    }
    return DefWindowProcW (window, message, wParam, lParam);
}

// Runs the window's messages and the editor's idle call for the given time; false once
// the window has been closed.
bool runFor (AEffect* effect, std::chrono::milliseconds duration)
{
    for (const auto end = std::chrono::steady_clock::now() + duration; std::chrono::steady_clock::now() < end;)
    {
        MSG message;
        while (PeekMessageW (&message, nullptr, 0, 0, PM_REMOVE))
        {
            if (message.message == WM_QUIT)
                return false;
            TranslateMessage (&message);
            DispatchMessageW (&message);
        }
        effect->dispatcher (effect, effEditIdle, 0, 0, nullptr, 0.0f);
        Sleep (15);
    }
    return true;
}
}

int main (int argc, char** argv)
{
    if (argc < 2)
    {
        std::fprintf (stderr, "usage: %s PLUGIN.dll [seconds]\n", argv[0]);
        return 2;
    }

    const int seconds = argc > 2 ? std::atoi (argv[2]) : 10;
    auto* module = LoadLibraryA (argv[1]);
    using PluginMain = AEffect* (*) (audioMasterCallback);
    auto main = module != nullptr ? reinterpret_cast<PluginMain> (reinterpret_cast<void*> (GetProcAddress (module, "VSTPluginMain"))) : nullptr;
    AEffect* effect = main != nullptr ? main (hostCallback) : nullptr;

    if (effect == nullptr || (effect->flags & effFlagsHasEditor) == 0)
    {
        std::fprintf (stderr, "%s: no plug-in with an editor (error %lu)\n", argv[1], GetLastError());
        return 1;
    }

    effect->dispatcher (effect, effOpen, 0, 0, nullptr, 0.0f);

    ERect* size = nullptr;
    effect->dispatcher (effect, effEditGetRect, 0, 0, &size, 0.0f);
    RECT frame { 0, 0, size != nullptr ? size->right - size->left : 700, size != nullptr ? size->bottom - size->top : 193 };
    const DWORD style = WS_OVERLAPPED | WS_CAPTION | WS_SYSMENU | WS_MINIMIZEBOX;
    AdjustWindowRect (&frame, style, FALSE);

    WNDCLASSW windowClass {};
    windowClass.lpfnWndProc = frameProcedure;
    windowClass.hInstance = GetModuleHandleW (nullptr);
    windowClass.lpszClassName = L"QuendaEditorHost";
    windowClass.hCursor = LoadCursor (nullptr, IDC_ARROW);
    RegisterClassW (&windowClass);

    HWND window = CreateWindowW (L"QuendaEditorHost", L"Quenda", style, 0, 0, frame.right - frame.left,
                                 frame.bottom - frame.top, nullptr, nullptr, windowClass.hInstance, nullptr);
    effect->dispatcher (effect, effEditOpen, 0, 0, window, 0.0f);
    ShowWindow (window, SW_SHOWNORMAL);
    UpdateWindow (window);

    // Let the editor lay out and paint before saying where it is.
    bool open = runFor (effect, std::chrono::milliseconds (1500));
    RECT placed {};
    GetWindowRect (window, &placed);
    std::printf ("window %ld %ld %ld %ld\n", placed.left, placed.top, placed.right - placed.left, placed.bottom - placed.top);
    std::fflush (stdout);

    if (open)
        runFor (effect, std::chrono::seconds (seconds));

    effect->dispatcher (effect, effEditClose, 0, 0, nullptr, 0.0f);
    DestroyWindow (window);
    effect->dispatcher (effect, effClose, 0, 0, nullptr, 0.0f);
    return 0;
}
