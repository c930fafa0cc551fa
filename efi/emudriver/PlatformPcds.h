// The platform's PCD token spaces, which OVMF's PCD database does not hold: the getters of
// the PI PCD protocol are wrapped (or a protocol of our own is installed when there is none)
// so that the emulated platform answers them.
#pragma once

void AnswerPlatformPcds();
