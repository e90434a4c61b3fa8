/*
 * Dotted version comparison.
 */
#ifndef GUESTPREP_PLATFORM_UTILVERSION_H
#define GUESTPREP_PLATFORM_UTILVERSION_H

/* Compares two dotted version strings part by part from the left and
 * returns a negative number, 0 or a positive number as a is lower than,
 * equal to or higher than b.
 *
 * Each part (the text between dots) is its leading ASCII digits, compared
 * as a number of any length (no overflow: "007" equals "7", a 40-digit part
 * beats a 39-digit one), then the rest of the part compared byte by byte
 * ("04-LTS" is above "04" and below "05"). A part without digits counts as
 * the number 0 followed by its text. Missing parts count as 0, so "1.2"
 * equals "1.2.0" and "1.2" is below "1.2.1". A null string sorts below every
 * string; two nulls are equal. */
int Util_CompareDotted(const char *a, const char *b);

#endif
