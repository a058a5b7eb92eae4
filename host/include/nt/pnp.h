// pnp.h - device interfaces, their arrival and removal notifications, device properties.
#pragma once

#include "io.h"

DEFINE_GUID(GUID_HWPROFILE_QUERY_CHANGE, 0xcb3a4001, 0x46f0, 0x11d0, 0xb0, 0x8f, 0x00, 0x60, 0x97, 0x13, 0x05,
            0x3f);
DEFINE_GUID(GUID_HWPROFILE_CHANGE_CANCELLED, 0xcb3a4002, 0x46f0, 0x11d0, 0xb0, 0x8f, 0x00, 0x60, 0x97, 0x13,
            0x05, 0x3f);
DEFINE_GUID(GUID_HWPROFILE_CHANGE_COMPLETE, 0xcb3a4003, 0x46f0, 0x11d0, 0xb0, 0x8f, 0x00, 0x60, 0x97, 0x13,
            0x05, 0x3f);
DEFINE_GUID(GUID_DEVICE_INTERFACE_ARRIVAL, 0xcb3a4004, 0x46f0, 0x11d0, 0xb0, 0x8f, 0x00, 0x60, 0x97, 0x13,
            0x05, 0x3f);
DEFINE_GUID(GUID_DEVICE_INTERFACE_REMOVAL, 0xcb3a4005, 0x46f0, 0x11d0, 0xb0, 0x8f, 0x00, 0x60, 0x97, 0x13,
            0x05, 0x3f);
DEFINE_GUID(GUID_TARGET_DEVICE_QUERY_REMOVE, 0xcb3a4006, 0x46f0, 0x11d0, 0xb0, 0x8f, 0x00, 0x60, 0x97, 0x13,
            0x05, 0x3f);
DEFINE_GUID(GUID_TARGET_DEVICE_REMOVE_CANCELLED, 0xcb3a4007, 0x46f0, 0x11d0, 0xb0, 0x8f, 0x00, 0x60, 0x97,
            0x13, 0x05, 0x3f);
DEFINE_GUID(GUID_TARGET_DEVICE_REMOVE_COMPLETE, 0xcb3a4008, 0x46f0, 0x11d0, 0xb0, 0x8f, 0x00, 0x60, 0x97,
            0x13, 0x05, 0x3f);

extern "C" {

typedef enum _IO_NOTIFICATION_EVENT_CATEGORY {
    EventCategoryReserved,
    EventCategoryHardwareProfileChange,
    EventCategoryDeviceInterfaceChange,
    EventCategoryTargetDeviceChange,
} IO_NOTIFICATION_EVENT_CATEGORY;

#define PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES 0x00000001
#define DEVICE_INTERFACE_INCLUDE_NONACTIVE 0x00000001

typedef struct _DEVICE_INTERFACE_CHANGE_NOTIFICATION {
    USHORT Version;
    USHORT Size;
    GUID Event;
    GUID InterfaceClassGuid;
    PUNICODE_STRING SymbolicLinkName;
} DEVICE_INTERFACE_CHANGE_NOTIFICATION, *PDEVICE_INTERFACE_CHANGE_NOTIFICATION;

typedef NTSTATUS DRIVER_NOTIFICATION_CALLBACK_ROUTINE(PVOID NotificationStructure, PVOID Context);
typedef DRIVER_NOTIFICATION_CALLBACK_ROUTINE* PDRIVER_NOTIFICATION_CALLBACK_ROUTINE;

typedef enum {
    DevicePropertyDeviceDescription = 0x0,
    DevicePropertyHardwareID = 0x1,
    DevicePropertyLocationInformation = 0xa,
    DevicePropertyPhysicalDeviceObjectName = 0xb,
} DEVICE_REGISTRY_PROPERTY;

NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, const GUID* InterfaceClassGuid,
                                   PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName);
NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable);
NTSTATUS IoGetDeviceInterfaces(const GUID* InterfaceClassGuid, PDEVICE_OBJECT PhysicalDeviceObject,
                               ULONG Flags, PWSTR* SymbolicLinkList);
NTSTATUS IoRegisterPlugPlayNotification(IO_NOTIFICATION_EVENT_CATEGORY EventCategory,
                                        ULONG EventCategoryFlags, PVOID EventCategoryData,
                                        PDRIVER_OBJECT DriverObject,
                                        PDRIVER_NOTIFICATION_CALLBACK_ROUTINE CallbackRoutine, PVOID Context,
                                        PVOID* NotificationEntry);
NTSTATUS IoUnregisterPlugPlayNotification(PVOID NotificationEntry);
NTSTATUS IoGetDeviceProperty(PDEVICE_OBJECT DeviceObject, DEVICE_REGISTRY_PROPERTY DeviceProperty,
                             ULONG BufferLength, PVOID PropertyBuffer, PULONG ResultLength);
}
