#include "commands.h"

namespace kepraw {

const char* const kMainHelp = R"(usage: kepraw COMMAND [ARGS...]

Runs the low-light multi-frame merge and the HDR fusion of
libkep_frame_registration on raw Bayer files, or on a built-in scene.

commands:
  demo     build a synthetic burst and bracket, run both paths, write the results
  night    merge a burst of 3 to 18 raw frames into one low-noise frame
  hdr      fuse three exposures into one tone-mapped raw frame
  info     show what kepraw reads from raw files

Run 'kepraw COMMAND --help' for a command's options.

input files:
  Headerless little-endian 16-bit raw files (the library's own raw layout; give
  --size WxH) and DNG / camera raw files (read with LibRaw: the Bayer mosaic,
  its pattern and per-site black levels). The format is decided from the
  file's signature and extension before any decoder sees it.

10-bit rule:
  The library works on 10-bit samples (0..1023). Data with a white level W
  above 1023 (from the file, or 2^bits - 1 for headerless files given --bits)
  is scaled with its black levels: v' = round(v * 1023 / W). Samples above the
  white level (or above 1023 in 10-bit data) are clamped to 1023 with a
  warning. kepraw says on standard error whenever it scales or clamps.

outputs:
  The raw result is headerless 16-bit little-endian raw, or a DNG when the
  output name ends in .dng. Every output is written to a temporary file next
  to it and renamed into place at the end; inputs are never modified and an
  output that names an input is refused.

exit status:
  0 success, 1 the tool failed (out of memory, write error),
  2 bad input or arguments (one line on standard error names the problem).
)";

const char* const kNightHelp = R"(usage: kepraw night FRAME... -o OUT [options]

Merges a burst of 3 to 18 raw frames with the low-light path (kepNightProcess;
its mean merge is the result of qnNocturnPreProcess). Frames are given in burst
order: frames 0 and 1 are the two short exposures, frame 2 is the reference the
others are aligned to, frames 3 and up are further normal frames. Frames must
share one size, a multiple of 4 in both directions, at least 64x64.

options:
  -o, --output OUT        merged raw frame (.dng: DNG with the output depth's
                          white and black levels, anything else: headerless
                          16-bit little-endian raw, values as the library wrote them)
  --merge M               mean (the plain average of the aligned frames) or
                          robust (refined alignment, frames weighed against the
                          reference by the noise: moving things leave no ghosts)
                          (default mean)
  --noise A,B             noise of the frames for the robust merge: variance =
                          A * signal + B in 10-bit levels above black (default:
                          estimated from the burst)
  --output-bits N         depth of the result, 10, 12, 14 or 16 (default 10);
                          values and black levels scale by 2^(N-10). (--bits is
                          the depth of headerless inputs.)
  --workers N             threads of the robust merge, 1..16 (default 2)
  --weights-png FILE      picture of the robust merge's weights per 2x2 quad:
                          white where the other frames counted fully, black
                          where they were rejected as motion
  --size WxH              size of headerless input files
  --bits N                sample depth of headerless input files, 10..16
                          (default 10; deeper data is scaled to 10 bits)
  --pattern P             Bayer pattern rggb, bggr, grbg or gbrg
                          (default: from the files, else rggb)
  --black R,G,B           black levels of the red, green and blue sites in the
                          files' units (scaled like the samples), or one value for
                          all (default: from the reference file, else 64 on the
                          10-bit scale)
  --gain G                brightening about the black level after the merge;
                          below 1 the merge is copied unchanged (default 1.0)
  --gray-gain N           integer gain of the gray guide images (default 1)
  --min-features N        fewest reference feature points for which alignment is
                          attempted (default 30)
  --align-tuning T        alignment tuning: 1 or less keeps the inlier distance
                          limit at 1.0, up to 2 it falls linearly to 0.1 (default 1.0)
  --blur-select V         above 510 the guides are smoothed with a 5x5 box (default 0)
  --sharpness-ratio R     frames less sharp than R times the sharpest are left
                          out (default 0.9)
  --png FILE              PNG preview of the result (bilinear demosaic, white
                          balance from the file or gray world, sRGB gamma)
  --json FILE             JSON report: inputs, parameters, everything the
                          library reported, per-frame outcome, timing
  -h, --help              show this help

The report on standard output gives each frame's outcome (merged, rejected as
not sharp enough, rejected by the alignment, ...) as the library reports it,
the number of usable frames, the feature points found on the reference, the
valid area and, for the robust merge, each frame's mean weight, the share of
samples rejected as motion and the noise model used.

example:
  kepraw night burst_*.dng -o merged.dng --png merged.png --json merged.json
  kepraw night --size 4000x3000 f0.raw f1.raw f2.raw f3.raw -o out.raw
)";

const char* const kHdrHelp = R"(usage: kepraw hdr SHORT MID LONG -o OUT [options]

Fuses three exposures of one size with the HDR entry hdrProcess into one
tone-mapped raw frame. SHORT goes to the entry's frameA, MID to frameB and
LONG to frameC. After removing the black level the entry builds a four-frame
bracket with digital gains: LONG x max(R/4, 1), MID x max(R/4, 1), a copy of
SHORT x max(R/2, 1) and SHORT x R, with R the exposure ratio (SHORT gets the
largest gain). Frames must have even sides, at least 8.

options:
  -o, --output OUT        fused raw frame (.dng: DNG, anything else: headerless
                          16-bit little-endian raw)
  --size WxH              size of headerless input files
  --bits N                sample depth of headerless input files, 10..16 (default 10)
  --pattern P             Bayer pattern rggb, bggr, grbg or gbrg
                          (default: from the files, else rggb)
  --black B0,B1,B2,B3     black levels of the top-left, top-right, bottom-left and
                          bottom-right sites in the files' units, or one value
                          for all (default: from SHORT's file, else 64,64,64,64)
  --red-gain G            white-balance gain of the red sites (default 1.0)
  --blue-gain G           white-balance gain of the blue sites (default 1.0)
  --ratio R               exposure ratio (default 4)
  --png FILE              PNG preview of the result
  --json FILE             JSON report
  -h, --help              show this help

example:
  kepraw hdr short.dng mid.dng long.dng -o hdr.dng --ratio 4 --png hdr.png
)";

const char* const kInfoHelp = R"(usage: kepraw info [--size WxH] [--bits N] FILE...

Shows what kepraw reads from each file: format, camera, size, Bayer pattern,
black and white levels, value range, and the 10-bit scaling it would apply.
A headerless file needs --size to be read; without it kepraw lists the sizes
of common aspect ratios that fit the file.

options:
  --size WxH              size of headerless files
  --bits N                sample depth of headerless files, 10..16 (default 10)
  -h, --help              show this help
)";

const char* const kDemoHelp = R"(usage: kepraw demo [--out DIR] [--size WxH]

Builds a deterministic synthetic scene (fine texture, edges, text-like strokes,
smooth gradients, deep shadows, bright highlights), renders it as 10-bit RGGB
raw on a black level of 64, and runs both paths of the library on it:

  night  eight frames with known hand-shake motion (sub-pixel shifts, a small
         rotation), shot and read noise, frames 0 and 1 short exposures;
  hdr    a short / mid / long bracket (1/4, 1/2, 1) of the same scene, ratio 4.

It prints each frame's outcome, the usable frames, feature points, valid area,
the PSNR of the reference and of the merge against the clean scene, and the
time of each path, and writes into DIR: reference.raw, merged.raw, hdr.raw
(headerless 16-bit little-endian), reference.png, merged.png, hdr.png and
report.json.

options:
  --out DIR               output directory, created if missing (default ./kepraw-demo)
  --size WxH              scene size, multiples of 4 from 64x64 (default 2048x1536)
  -h, --help              show this help
)";

}  // namespace kepraw
