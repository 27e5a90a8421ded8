// Allocator settings for a process that handles whole lines of audio.
//
// A 5 s line passes through several buffers of about half a megabyte to a
// megabyte (engine samples, resampled floats, the WAV). glibc serves blocks
// that large with a fresh mmap and unmaps them at free, so every fresh line
// page-faults its way through each buffer anew: about half the CPU time of a
// line from an instant engine. keepLineBuffersInHeap() keeps blocks up to
// 16 MiB in the heap and trims a heap only when more than 8 MiB is free at its
// top, so the same pages serve line after line.
//
// Process-wide; call once at start, before other threads allocate. Cost:
// resident memory may stay up to 8 MiB per allocation arena above what is in
// use after a burst of fresh lines.
#pragma once

namespace kelvo {

void keepLineBuffersInHeap();

}  // namespace kelvo
