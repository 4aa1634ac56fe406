// The viewer page's own files, built into the tool (the generated view_assets.cpp).
#pragma once

extern const char k_index_html[];
extern const char k_viewer_js[];
extern const char k_viewer_css[];
