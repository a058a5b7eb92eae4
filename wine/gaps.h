// gaps.h - what this kernel lacks or does otherwise, and what stands for it: the one table of gaps.
#pragma once

void FillProgramsGaps(); // for the emulated keyboards and stacks, which are part of this program
void FillDriversGaps(void* pModule);
