// layout.cpp - the records that the driver touches lie where 64-bit Windows has them.
//
// The records come from the toolchain's headers, the driver meets the system's: sizes and offsets in bytes,
// as the platform's own headers and debugger tell them. Nothing of this is in the image.
#include <kernel.h>
#include <stddef.h>

#define SIZE(type, bytes) static_assert(sizeof(type) == (bytes), #type)
#define AT(type, field, bytes) static_assert(offsetof(type, field) == (bytes), #type "." #field)

// Objects to wait for, locks, deferred calls.
SIZE(KEVENT, 0x18);
SIZE(KMUTEX, 0x38);
SIZE(KTIMER, 0x40);
SIZE(KDPC, 0x40);
SIZE(KSPIN_LOCK, 8);
SIZE(LIST_ENTRY, 0x10);

// Names, attributes, registry.
SIZE(UNICODE_STRING, 0x10);
AT(UNICODE_STRING, Buffer, 8);
SIZE(OBJECT_ATTRIBUTES, 0x30);
SIZE(IO_STATUS_BLOCK, 0x10);
SIZE(RTL_QUERY_REGISTRY_TABLE, 0x38);
AT(KEY_VALUE_PARTIAL_INFORMATION, Data, 12);

// Drivers and devices.
SIZE(DRIVER_OBJECT, 0x150);
AT(DRIVER_OBJECT, DeviceObject, 8);
AT(DRIVER_OBJECT, DriverExtension, 0x30);
AT(DRIVER_OBJECT, DriverUnload, 0x68);
AT(DRIVER_OBJECT, MajorFunction, 0x70);
AT(DRIVER_EXTENSION, AddDevice, 8);
AT(DEVICE_OBJECT, NextDevice, 0x10);
AT(DEVICE_OBJECT, Flags, 0x30);
AT(DEVICE_OBJECT, Characteristics, 0x34);
AT(DEVICE_OBJECT, DeviceExtension, 0x40);
AT(DEVICE_OBJECT, DeviceType, 0x48);
AT(DEVICE_OBJECT, StackSize, 0x4C);
AT(DEVICE_INTERFACE_CHANGE_NOTIFICATION, Event, 4);
AT(DEVICE_INTERFACE_CHANGE_NOTIFICATION, SymbolicLinkName, 0x28);

// Requests.
SIZE(IRP, 0xD0);
AT(IRP, MdlAddress, 8);
AT(IRP, Flags, 0x10);
AT(IRP, AssociatedIrp, 0x18);
AT(IRP, IoStatus, 0x30);
AT(IRP, RequestorMode, 0x40);
AT(IRP, PendingReturned, 0x41);
AT(IRP, StackCount, 0x42);
AT(IRP, CurrentLocation, 0x43);
AT(IRP, Cancel, 0x44);
AT(IRP, CancelIrql, 0x45);
AT(IRP, CancelRoutine, 0x68);
AT(IRP, UserBuffer, 0x70);
AT(IRP, Tail.Overlay.DriverContext, 0x78);
AT(IRP, Tail.Overlay.ListEntry, 0xA8);
AT(IRP, Tail.Overlay.CurrentStackLocation, 0xB8);
SIZE(IO_STACK_LOCATION, 0x48);
AT(IO_STACK_LOCATION, MinorFunction, 1);
AT(IO_STACK_LOCATION, Control, 3);
AT(IO_STACK_LOCATION, Parameters, 8);
AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.OutputBufferLength, 8);
AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.InputBufferLength, 0x10);
AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode, 0x18);
AT(IO_STACK_LOCATION, Parameters.Others.Argument1, 8);
AT(IO_STACK_LOCATION, DeviceObject, 0x28);
AT(IO_STACK_LOCATION, FileObject, 0x30);
AT(IO_STACK_LOCATION, CompletionRoutine, 0x38);
AT(IO_STACK_LOCATION, Context, 0x40);
SIZE(MDL, 0x30);
AT(MDL, MdlFlags, 0xA);
AT(MDL, MappedSystemVa, 0x18);
AT(MDL, StartVa, 0x20);
AT(MDL, ByteCount, 0x28);
AT(MDL, ByteOffset, 0x2C);

// USB requests and the keyboard class.
SIZE(struct _URB_HEADER, 0x18);
AT(struct _URB_HEADER, Status, 4);
SIZE(struct _URB_BULK_OR_INTERRUPT_TRANSFER, 0x80);
AT(struct _URB_BULK_OR_INTERRUPT_TRANSFER, PipeHandle, 0x18);
AT(struct _URB_BULK_OR_INTERRUPT_TRANSFER, TransferFlags, 0x20);
AT(struct _URB_BULK_OR_INTERRUPT_TRANSFER, TransferBufferLength, 0x24);
AT(struct _URB_BULK_OR_INTERRUPT_TRANSFER, TransferBuffer, 0x28);
AT(struct _URB_BULK_OR_INTERRUPT_TRANSFER, TransferBufferMDL, 0x30);
SIZE(struct _URB_CONTROL_TRANSFER, 0x88);
AT(struct _URB_CONTROL_TRANSFER, SetupPacket, 0x80);
SIZE(struct _URB_CONTROL_DESCRIPTOR_REQUEST, 0x88);
AT(struct _URB_CONTROL_DESCRIPTOR_REQUEST, Index, 0x82);
AT(struct _URB_CONTROL_DESCRIPTOR_REQUEST, DescriptorType, 0x83);
AT(struct _URB_CONTROL_DESCRIPTOR_REQUEST, LanguageId, 0x84);
SIZE(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, 0x88);
AT(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, RequestTypeReservedBits, 0x80);
AT(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, Request, 0x81);
AT(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, Value, 0x82);
AT(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, Index, 0x84);
SIZE(KEYBOARD_TYPEMATIC_PARAMETERS, 6);

// Values that the platform fixed.
static_assert(NonPagedPoolNx == 512, "pool");
static_assert(DO_DEVICE_INITIALIZING == 0x80 && SL_PENDING_RETURNED == 1, "flags");
static_assert(IOCTL_INTERNAL_USB_SUBMIT_URB == 0x220003, "requests");
static_assert(DevicePropertyHardwareID == 1 && DevicePropertyPhysicalDeviceObjectName == 11, "properties");
