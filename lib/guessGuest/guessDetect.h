// Detection with a choice of where the image's damage goes. Guess_Guest is
// this with nobody listening (detection logs nothing); the CLI passes a
// reporter to say in one line what is wrong with an image it cannot read.
#ifndef GUESTPREP_LIB_GUESSDETECT_H
#define GUESTPREP_LIB_GUESSDETECT_H

#include "guestprep/guess.h"
#include "platform/image/imageReader.h"

namespace guess {

// Guess_Guest, handing the damage the image readers meet (at most one
// report per volume) to reporter; null drops it. Why the image could not be
// opened at all (missing, not a regular file, not ISO 9660 nor UDF) goes to
// reporter too, so a caller can say why a GUESS_OPEN_FAILED happened.
GuessResult Detect(const char *path, const void *udfOption, GuessInfo *info,
                   gp::DamageReporter *reporter);

}  // namespace guess

#endif
