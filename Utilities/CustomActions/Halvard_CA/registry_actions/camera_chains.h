#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard {

/// Takes the package's camera transform out of the transform chain of every camera device
/// interface. A chain is written back even when the transform was not in it, longer by one null
/// character each time, and always as "CameraDeviceMftClsidChain", whichever value it was read
/// from. Deletes the values of that name, and of the name "CLSID", that are no multi-string or
/// cannot be read or written.
///
/// Returns ERROR_SUCCESS (0), or ERROR_INSTALL_FAILURE (1603) when one of those could not be
/// deleted; the others are worked on all the same. Throws std::bad_alloc only, outside of the
/// work on a value; running out of memory over a value deletes it.
UINT CleanCameraTransformChains();

extern "C" {

/// Removes the package's camera transform from every camera device interface of the system.
///
/// Deferred action, result ignored, without CustomActionData. Inputs: the values
/// "CameraDeviceMftClsidChain" and "CLSID" of the device class
/// {e5323777-f976-4f5b-9b55-b94699c46e44}, HKLM "SYSTEM\CurrentControlSet\Control\DeviceClasses",
/// and of all keys below it. Logs nothing. Stores its session as the current session.
/// Results: 0, 1603. Reversed on purpose, and packages count on this: ERROR_INSTALL_FAILURE for a
/// clean run, also one that found nothing, and ERROR_SUCCESS when a value could not be deleted.
/// Throws std::bad_alloc only, as halvard::CleanCameraTransformChains does.
UINT __stdcall DeleteOptiqCameraGUID(MSIHANDLE session);

} // extern "C"

} // namespace halvard
