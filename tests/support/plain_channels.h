// plain_channels.h - a CRecorder with n plain channels on driver channels
// 0..n-1 and lines 1..n, for tests of the recorder's lookups and commands.
#ifndef PLAIN_CHANNELS_H
#define PLAIN_CHANNELS_H

#include "BaseChannel.h"
#include "recorder.h"

inline void AddPlainChannels(CRecorder& rec, int n)
{
    for (int i = 0; i < n; ++i) {
        BaseChannel* prCh = new BaseChannel();
        prCh->iChIx = prCh->iDrvCh = i;
        prCh->iChannel = i + 1;
        prCh->prRecorder = &rec;
        rec.vChannels.push_back(prCh);
    }
}

#endif
