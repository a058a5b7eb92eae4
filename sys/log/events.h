// events.h - the events that the driver traces, a row each: id, level, keywords, name, fields.
//
// An id is never given to another event: what decoders and filters know stays true. docs/trace.md is made from
// these rows.
#pragma once

#include "log/trace.h"

namespace TraceEvents
{
using namespace TraceFields;

// The driver.
inline constexpr TraceEvent DriverLoaded(1, TRACE_INFO, TRACE_LIFE, "DriverLoaded", WideText{"registryPath"});
inline constexpr TraceEvent DriverUnloads(2, TRACE_INFO, TRACE_LIFE, "DriverUnloads",
                                          WideText{"registryPath"});

// Requests between the HID stack and the USB stack.
inline constexpr TraceEvent UrbSeen(10, TRACE_VERBOSE, TRACE_USB, "UrbSeen", U32{"keyboard"}, U8{"completed"},
                                    Text{"function"});
inline constexpr TraceEvent RequestFailed(11, TRACE_WARNING, TRACE_USB, "RequestFailed", U32{"keyboard"},
                                          Status{"status"});
inline constexpr TraceEvent ConfigurationSelected(12, TRACE_INFO, TRACE_USB, "ConfigurationSelected",
                                                  U32{"keyboard"}, U8{"completed"}, U8{"interface"},
                                                  U8{"alternate"}, Hex8{"class"}, Hex8{"subClass"},
                                                  Text{"protocol"}, U32{"pipes"});
inline constexpr TraceEvent Deconfigured(13, TRACE_INFO, TRACE_USB, "Deconfigured", U32{"keyboard"},
                                         U8{"completed"});
inline constexpr TraceEvent DescriptorRequest(14, TRACE_VERBOSE, TRACE_USB, "DescriptorRequest",
                                              U32{"keyboard"}, U8{"completed"}, Text{"type"}, U8{"index"});
inline constexpr TraceEvent SetupPacket(15, TRACE_VERBOSE, TRACE_USB, "SetupPacket", Text{"direction"},
                                        Text{"type"}, Text{"recipient"}, Text{"request"}, Hex16{"value"},
                                        Hex16{"index"}, U16{"length"});
inline constexpr TraceEvent Descriptor(16, TRACE_VERBOSE, TRACE_USB, "Descriptor", U32{"keyboard"},
                                       Text{"type"});
inline constexpr TraceEvent Interface(17, TRACE_INFO, TRACE_USB, "Interface", U32{"keyboard"}, Hex8{"class"},
                                      Hex8{"subClass"}, Text{"protocol"});
inline constexpr TraceEvent HidDescriptor(18, TRACE_VERBOSE, TRACE_USB, "HidDescriptor", Hex16{"version"},
                                          U8{"country"}, U8{"descriptors"});
inline constexpr TraceEvent HidClassDescriptor(19, TRACE_VERBOSE, TRACE_USB, "HidClassDescriptor",
                                               Text{"type"}, U16{"length"});
inline constexpr TraceEvent RequestSent(20, TRACE_VERBOSE, TRACE_USB, "RequestSent", U32{"keyboard"},
                                        Text{"function"}, Status{"status"}, Hex32{"urbStatus"});

// Reads at the keyboard: after each one that goes down, the whole list, oldest first.
inline constexpr TraceEvent PendingRead(21, TRACE_VERBOSE, TRACE_USB, "PendingRead", U32{"keyboard"},
                                        U32{"index"}, U32{"count"}, Address{"request"});
inline constexpr TraceEvent PendingListFull(22, TRACE_WARNING, TRACE_USB | TRACE_QUEUES, "PendingListFull",
                                            U32{"keyboard"}, Address{"request"});
inline constexpr TraceEvent DiscardRingFull(23, TRACE_WARNING, TRACE_QUEUES, "DiscardRingFull",
                                            U32{"keyboard"}, Hex8{"value"});

// Reports.
inline constexpr TraceEvent Rollover(30, TRACE_INFO, TRACE_REPORTS, "Rollover", U32{"keyboard"},
                                     Bytes{"report"});
inline constexpr TraceEvent ModifierChanged(31, TRACE_VERBOSE, TRACE_REPORTS, "ModifierChanged",
                                            U32{"keyboard"}, Hex32{"modifier"}, U8{"down"},
                                            Hex32{"modifiers"});
// A report that the keyboard sent, and which of the driver's modes gets it.
inline constexpr TraceEvent ReportTaken(32, TRACE_VERBOSE, TRACE_REPORTS, "ReportTaken", U32{"keyboard"},
                                        Text{"mode"}, Bytes{"report"});

// Hotkeys: after each change of the definitions, the lists of all keyboards.
inline constexpr TraceEvent HotkeyListEntry(40, TRACE_VERBOSE, TRACE_HOTKEYS, "HotkeyListEntry",
                                            U32{"keyboard"}, U32{"index"}, U32{"id"}, Hex32{"modifiers"},
                                            U32{"keyCount"}, Bytes{"keys"});
inline constexpr TraceEvent KeyDropped(41, TRACE_INFO, TRACE_HOTKEYS, "KeyDropped", U32{"keyboard"},
                                       Hex8{"key"});
inline constexpr TraceEvent ScanCodeUnknown(42, TRACE_WARNING, TRACE_HOTKEYS, "ScanCodeUnknown",
                                            Hex32{"scanCode"});
// 43 was a hotkey without a definition, which no report can meet.

// A report at the hotkeys: the word that arms them; each key; each hotkey that the key can mean; what became of those
// with keys held, and of keys.
inline constexpr TraceEvent HotkeysArmed(44, TRACE_VERBOSE, TRACE_HOTKEYS, "HotkeysArmed", U32{"keyboard"},
                                         Hex32{"modifiers"});
inline constexpr TraceEvent KeyPassed(45, TRACE_VERBOSE, TRACE_HOTKEYS, "KeyPassed", U32{"keyboard"},
                                      Hex8{"key"}, U8{"down"});
inline constexpr TraceEvent HotkeyLookedAt(46, TRACE_VERBOSE, TRACE_HOTKEYS, "HotkeyLookedAt",
                                           U32{"keyboard"}, U32{"index"}, U32{"id"}, Hex32{"modifiers"},
                                           U8{"armed"});
inline constexpr TraceEvent HotkeyState(47, TRACE_VERBOSE, TRACE_HOTKEYS, "HotkeyState", U32{"keyboard"},
                                        U32{"index"}, U32{"id"}, Bytes{"held"}, Text{"state"});
inline constexpr TraceEvent KeysTaken(48, TRACE_VERBOSE, TRACE_HOTKEYS, "KeysTaken", U32{"keyboard"},
                                      Bytes{"keys"}, Text{"by"});
inline constexpr TraceEvent ModifiersTaken(49, TRACE_VERBOSE, TRACE_HOTKEYS, "ModifiersTaken",
                                           U32{"keyboard"}, Hex8{"modifiers"});

// Keys and reports that wait.
inline constexpr TraceEvent SwallowBufferFull(50, TRACE_WARNING, TRACE_QUEUES, "SwallowBufferFull",
                                              U32{"keyboard"}, Hex8{"key"});
inline constexpr TraceEvent InsertBufferFull(51, TRACE_WARNING, TRACE_QUEUES, "InsertBufferFull",
                                             U32{"keyboard"}, Hex8{"key"});
inline constexpr TraceEvent FifoFull(52, TRACE_WARNING, TRACE_QUEUES, "FifoFull", U32{"keyboard"},
                                     Bytes{"report"});
inline constexpr TraceEvent FifoEmpty(53, TRACE_VERBOSE, TRACE_QUEUES, "FifoEmpty", U32{"keyboard"});
inline constexpr TraceEvent KeyHeldBack(54, TRACE_VERBOSE, TRACE_QUEUES, "KeyHeldBack", U32{"keyboard"},
                                        Hex8{"key"});
inline constexpr TraceEvent KeyGiven(55, TRACE_VERBOSE, TRACE_QUEUES, "KeyGiven", U32{"keyboard"},
                                     Hex8{"key"});
inline constexpr TraceEvent ReadAnswered(56, TRACE_VERBOSE, TRACE_QUEUES, "ReadAnswered", U32{"keyboard"},
                                         Text{"with"}, Bytes{"report"});
inline constexpr TraceEvent NotifyQueueFull(57, TRACE_WARNING, TRACE_QUEUES, "NotifyQueueFull",
                                            U32{"keyboard"}, U32{"id"}, Hex32{"value"});
inline constexpr TraceEvent MacroQueueFull(58, TRACE_WARNING, TRACE_QUEUES | TRACE_MACRO, "MacroQueueFull",
                                           U16{"type"});

// The macro mode.
inline constexpr TraceEvent MacroSettings(60, TRACE_INFO, TRACE_MACRO, "MacroSettings",
                                          WideText{"registryPath"});
inline constexpr TraceEvent ModeHotkey(61, TRACE_INFO, TRACE_MACRO, "ModeHotkey", Text{"kind"},
                                       Hex32{"hotkey"});
inline constexpr TraceEvent MacroFileNotOpened(62, TRACE_WARNING, TRACE_MACRO, "MacroFileNotOpened",
                                               WideText{"path"}, Status{"status"});
inline constexpr TraceEvent MacroFileRead(63, TRACE_INFO, TRACE_MACRO, "MacroFileRead", WideText{"path"},
                                          Status{"status"});
inline constexpr TraceEvent MacroAction(64, TRACE_VERBOSE, TRACE_MACRO, "MacroAction", Hex16{"macro"},
                                        U32{"index"}, Hex8{"first"}, U8{"length"});
inline constexpr TraceEvent TakesPart(65, TRACE_INFO, TRACE_MACRO, "TakesPart", U32{"keyboard"}, U8{"on"});
inline constexpr TraceEvent ModeHotkeyNotSought(66, TRACE_VERBOSE, TRACE_MACRO, "ModeHotkeyNotSought",
                                                Hex32{"hotkey"}, U32{"length"});
inline constexpr TraceEvent ModifierMacro(67, TRACE_INFO, TRACE_MACRO, "ModifierMacro", U32{"keyboard"},
                                          Hex16{"macro"});
inline constexpr TraceEvent KeyMacro(68, TRACE_INFO, TRACE_MACRO, "KeyMacro", U32{"keyboard"},
                                     Hex16{"macro"});
inline constexpr TraceEvent LedNotUsed(69, TRACE_INFO, TRACE_MACRO, "LedNotUsed", U8{"mode"});
inline constexpr TraceEvent ModeShown(70, TRACE_INFO, TRACE_MACRO, "ModeShown", U8{"mode"});

// Parked reads: after each one that is parked or taken off, the whole list, oldest first.
inline constexpr TraceEvent ReadParked(71, TRACE_VERBOSE, TRACE_MACRO, "ReadParked", U32{"keyboard"},
                                       Address{"request"});
inline constexpr TraceEvent ReadUnparked(72, TRACE_VERBOSE, TRACE_MACRO, "ReadUnparked", U32{"keyboard"},
                                         Address{"request"});
inline constexpr TraceEvent ParkedRead(73, TRACE_VERBOSE, TRACE_MACRO, "ParkedRead", U32{"keyboard"},
                                       U32{"index"}, U32{"count"}, Address{"request"});

// Point-of-sale keyboards.
inline constexpr TraceEvent SaleModifier(80, TRACE_VERBOSE, TRACE_SALE, "SaleModifier", U32{"keyboard"},
                                         Text{"modifier"}, U8{"down"});
inline constexpr TraceEvent SaleScanCode(81, TRACE_VERBOSE, TRACE_SALE, "SaleScanCode", U32{"keyboard"},
                                         Hex32{"scanCode"}, U8{"break"}, U8{"repeats"});
} // namespace TraceEvents
