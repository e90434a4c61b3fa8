// Detection with a choice of where the image's damage goes. Guess_Guest is
// this with nobody listening (detection logs nothing); the CLI passes a
// reporter to say in one line what is wrong with an image it cannot read.
#ifndef GUESTPREP_LIB_GUESSDETECT_H
#define GUESTPREP_LIB_GUESSDETECT_H

#include "guestprep/guess.h"
#include "platform/image/imageReader.h"

namespace guess {

// Guess_Guest, opening the image once. reporter (may be null) gets at most
// one report per call: why the image could not be opened ("No such file or
// directory", "not a regular file", "neither an ISO 9660 nor a UDF image",
// "damaged image: ..."), or else the first damage the readers met while the
// detectors looked at it ("damaged image: ...").
GuessResult Detect(const char *path, const void *udfOption, GuessInfo *info,
                   gp::DamageReporter *reporter);

// The same over an image already open (tests count its reads, the fuzzer
// reads from memory). Whatever the image holds, detection reads at most
// 16 MiB of it.
GuessResult DetectImage(gp::ImageReader &image, GuessInfo *info, gp::DamageReporter *reporter);

}  // namespace guess

#endif
