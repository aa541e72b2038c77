// JTKernelTrace: user events in the kernel's event trace.
//
// On Linux each event is one line written to tracefs's trace_marker
// (/sys/kernel/tracing/trace_marker, else /sys/kernel/debug/tracing/trace_marker):
//   "JT event <n>: <text>"            addStringUserEvent
//   "JT event <n>: <a> <b>"           addSimpleUserEvent
//   "JT event <n>: <hex bytes>"       addComplexUserEvent (two hex digits per byte)
// A line is cut to 1023 bytes. Where tracefs is absent or not writable the kernel is taken as one
// without instrumentation and the calls succeed without doing anything.
//
// Errors: false for a null text, a null or empty complex block, or a write the kernel refused.
// Thread safety: any thread; the marker is opened once and kept open.
#ifndef JTKERNELTRACE_H
#define JTKERNELTRACE_H

class JTKernelTrace
{
public:
    static bool addStringUserEvent(unsigned int event, const char* text);
    static bool addSimpleUserEvent(unsigned int event, int a, int b);
    static bool addComplexUserEvent(unsigned int event, const void* data, unsigned int length);
};

#endif
