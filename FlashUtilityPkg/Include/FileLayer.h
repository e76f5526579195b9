// The file layer: files on the volume the run started from. It sits below every folder, output
// included, since the trace log is written through it. Names are relative to the current
// directory; see FileLayer.cpp.
#pragma once

#include "KobaltBase.h"

EFI_FILE_PROTOCOL* GetRootDirectory();
// Whether the handle's device path holds a node of the type and subtype. A handle without a path,
// a node shorter than its header or a path without an end within a bounded walk count as no.
Bool HandlePathHasNode(EFI_HANDLE handle, UINT8 type, UINT8 subtype);
Bool ReadFile(const CHAR16* name, UINT8** buffer, UINT32* size);
Bool SaveBufferToFile(const CHAR16* name, const VOID* data, UINT32 size);
Bool AppendBufferToFile(const CHAR16* name, const VOID* data, UINT32 size);
Bool EfiDeleteFile(const CHAR16* name);
Bool MakeDirectory(const CHAR16* name);
