// What the stream codec library exports; everything else in it stays internal.
#pragma once

#define VS_CODEC_API __attribute__((visibility("default")))
