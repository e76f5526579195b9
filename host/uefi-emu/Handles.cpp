// The handle database of the emulated environment: handles in creation order, protocol
// interfaces on them, and the boot services that install, find and remove them. Images and
// volumes create their handles through here.
#include <cstdarg>
#include <cstdio>

#include "EmuInternal.h"

namespace emu::detail {
namespace {

HandleRecord* FindHandle(EFI_HANDLE handle) {
  for (auto& record : g->handles) {
    if (record.get() == handle) return record.get();
  }
  return nullptr;
}

void* FindInterface(HandleRecord& record, const EFI_GUID& guid) {
  for (auto& [protocol, interface] : record.protocols) {
    if (GuidEqual(protocol, guid)) return interface;
  }
  return nullptr;
}

bool HasProtocol(HandleRecord& record, const EFI_GUID& guid) {
  for (auto& entry : record.protocols) {
    if (GuidEqual(entry.first, guid)) return true;
  }
  return false;
}

EFI_STATUS RemoveProtocol(EFI_HANDLE handle, const EFI_GUID& guid, void* interface) {
  HandleRecord* record = FindHandle(handle);
  if (record == nullptr) return EFI_INVALID_PARAMETER;
  for (auto it = record->protocols.begin(); it != record->protocols.end(); ++it) {
    if (GuidEqual(it->first, guid) && it->second == interface) {
      record->protocols.erase(it);
      // A handle without protocols ceases to exist.
      if (record->protocols.empty()) {
        for (auto h = g->handles.begin(); h != g->handles.end(); ++h) {
          if (h->get() == record) {
            g->handles.erase(h);
            break;
          }
        }
      }
      return EFI_SUCCESS;
    }
  }
  return EFI_NOT_FOUND;
}

EFI_STATUS EFIAPI InstallProtocolInterface(EFI_HANDLE* handle, const EFI_GUID* guid, EFI_INTERFACE_TYPE type,
                                           VOID* interface) {
  if (handle == nullptr || guid == nullptr || type != EFI_NATIVE_INTERFACE) return EFI_INVALID_PARAMETER;
  return InstallProtocol(handle, *guid, interface);
}

EFI_STATUS EFIAPI UninstallProtocolInterface(EFI_HANDLE handle, const EFI_GUID* guid, VOID* interface) {
  if (handle == nullptr || guid == nullptr) return EFI_INVALID_PARAMETER;
  return RemoveProtocol(handle, *guid, interface);
}

EFI_STATUS EFIAPI HandleProtocol(EFI_HANDLE handle, const EFI_GUID* guid, VOID** interface) {
  if (guid == nullptr || interface == nullptr) return EFI_INVALID_PARAMETER;
  *interface = nullptr;
  HandleRecord* record = FindHandle(handle);
  if (record == nullptr) return EFI_INVALID_PARAMETER;
  if (!HasProtocol(*record, *guid)) return EFI_UNSUPPORTED;
  *interface = FindInterface(*record, *guid);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI LocateProtocol(const EFI_GUID* guid, VOID*, VOID** interface) {
  if (guid == nullptr || interface == nullptr) return EFI_INVALID_PARAMETER;
  *interface = nullptr;
  for (auto& record : g->handles) {
    if (HasProtocol(*record, *guid)) {
      *interface = FindInterface(*record, *guid);
      return EFI_SUCCESS;
    }
  }
  return EFI_NOT_FOUND;
}

EFI_STATUS EFIAPI LocateHandleBuffer(EFI_LOCATE_SEARCH_TYPE type, const EFI_GUID* guid, VOID*, UINTN* count,
                                     EFI_HANDLE** buffer) {
  if (count == nullptr || buffer == nullptr) return EFI_INVALID_PARAMETER;
  *count = 0;
  *buffer = nullptr;
  if (type != AllHandles && type != ByProtocol) return EFI_UNSUPPORTED;
  if (type == ByProtocol && guid == nullptr) return EFI_INVALID_PARAMETER;
  std::vector<EFI_HANDLE> found;
  for (auto& record : g->handles) {
    if (type == AllHandles || HasProtocol(*record, *guid)) found.push_back(record.get());
  }
  if (found.empty()) return EFI_NOT_FOUND;
  auto* out = static_cast<EFI_HANDLE*>(AllocateHostPool(found.size() * sizeof(EFI_HANDLE)));
  if (out == nullptr) return EFI_OUT_OF_RESOURCES;
  for (size_t i = 0; i < found.size(); ++i) out[i] = found[i];
  *count = found.size();
  *buffer = out;
  return EFI_SUCCESS;
}

// Installs every pair or none: a failure takes back what the call had installed so far.
EFI_STATUS EFIAPI InstallMultipleProtocolInterfaces(EFI_HANDLE* handle, ...) {
  if (handle == nullptr) return EFI_INVALID_PARAMETER;
  std::vector<std::pair<const EFI_GUID*, void*>> pairs;
  va_list args;
  va_start(args, handle);
  for (;;) {
    const EFI_GUID* guid = va_arg(args, const EFI_GUID*);
    if (guid == nullptr) break;
    pairs.push_back({guid, va_arg(args, void*)});
  }
  va_end(args);
  EFI_HANDLE original = *handle;
  for (size_t i = 0; i < pairs.size(); ++i) {
    EFI_STATUS status = InstallProtocol(handle, *pairs[i].first, pairs[i].second);
    if (EFI_ERROR(status)) {
      for (size_t k = i; k-- > 0;) RemoveProtocol(*handle, *pairs[k].first, pairs[k].second);
      *handle = original;
      return status;
    }
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI UninstallMultipleProtocolInterfaces(EFI_HANDLE handle, ...) {
  if (FindHandle(handle) == nullptr) return EFI_INVALID_PARAMETER;
  std::vector<std::pair<const EFI_GUID*, void*>> pairs;
  va_list args;
  va_start(args, handle);
  for (;;) {
    const EFI_GUID* guid = va_arg(args, const EFI_GUID*);
    if (guid == nullptr) break;
    pairs.push_back({guid, va_arg(args, void*)});
  }
  va_end(args);
  // Check first, so that a failure leaves the handle as it was (and alive).
  HandleRecord* record = FindHandle(handle);
  for (auto& [guid, interface] : pairs) {
    if (!HasProtocol(*record, *guid) || FindInterface(*record, *guid) != interface) return EFI_INVALID_PARAMETER;
  }
  for (auto& [guid, interface] : pairs) RemoveProtocol(handle, *guid, interface);
  return EFI_SUCCESS;
}

}  // namespace

EFI_HANDLE NewHandle() {
  g->handles.push_back(std::make_unique<HandleRecord>());
  return g->handles.back().get();
}

EFI_STATUS InstallProtocol(EFI_HANDLE* handle, const EFI_GUID& guid, void* interface) {
  HandleRecord* record = nullptr;
  if (*handle == nullptr) {
    record = static_cast<HandleRecord*>(NewHandle());
  } else {
    record = FindHandle(*handle);
    if (record == nullptr) return EFI_INVALID_PARAMETER;
    if (HasProtocol(*record, guid)) return EFI_INVALID_PARAMETER;
  }
  record->protocols.push_back({guid, interface});
  *handle = record;
  return EFI_SUCCESS;
}

void InstallHandleServices(EFI_BOOT_SERVICES& services) {
  services.InstallProtocolInterface = InstallProtocolInterface;
  services.UninstallProtocolInterface = UninstallProtocolInterface;
  services.HandleProtocol = HandleProtocol;
  services.LocateProtocol = LocateProtocol;
  services.LocateHandleBuffer = LocateHandleBuffer;
  services.InstallMultipleProtocolInterfaces = InstallMultipleProtocolInterfaces;
  services.UninstallMultipleProtocolInterfaces = UninstallMultipleProtocolInterfaces;
}

void ReleaseHandles() { g->handles.clear(); }

}  // namespace emu::detail
