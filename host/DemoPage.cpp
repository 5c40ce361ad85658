#include "host/DemoPage.h"

namespace kestrin::host {

namespace {

// The page up to the largest body's number, which the script reads from the root element.
constexpr std::string_view pageOpening = R"page(<!DOCTYPE html>
<html lang="en" data-largest-body=")page";

constexpr std::string_view pageHead = R"page(">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Upload files</title>
<link rel="icon" href="data:,">
<style>
)page";

constexpr std::string_view pageBody = R"page(</style>
</head>
<body>
<main>
<h1>Upload files</h1>

<div class="field">
  <label for="route">Destination</label>
  <select id="route" aria-describedby="routeHelp">
    <option value="/users">Users (/users)</option>
    <option value="/ORVANE Drive">ORVANE Drive (/ORVANE Drive)</option>
  </select>
  <p id="routeHelp" class="hint">The two addresses this server takes uploads at. Both keep each
    file under its own name in the server's upload folder; choose the one you were given.</p>
</div>

<section aria-labelledby="sendTitle">
  <h2 id="sendTitle">Send files</h2>
  <p id="limit">Each file may be up to <strong id="limitText"></strong>. Files are sent one by
    one, three at a time; you can cancel any of them until its last byte is sent.</p>
  <div id="dropZone" role="button" tabindex="0" aria-describedby="limit">
    <strong>Choose files</strong> or drop them here
  </div>
  <input id="dropFiles" type="file" multiple hidden aria-label="Files to upload">
  <div class="bar">
    <p id="summary">No uploads yet.</p>
    <button id="cancelAll" type="button" disabled>Cancel all</button>
  </div>
  <ul id="rows" aria-label="Uploads"></ul>
  <p id="announce" class="spoken" aria-live="polite"></p>
</section>

<section aria-labelledby="formTitle">
  <h2 id="formTitle">Plain form</h2>
  <p class="hint">How a page of your own can embed an upload: a form posts into a hidden frame,
    and the server's answer hands its text to the page. All chosen files go in one request.</p>
  <form id="uploadForm" method="post" enctype="multipart/form-data" target="resultFrame"
        action="/users" novalidate>
    <label for="files">Files</label>
    <input id="files" type="file" name="file" multiple>
    <button id="submit" type="submit">Upload</button>
  </form>
  <p id="formResult" class="outcome" aria-live="polite"></p>
  <iframe id="resultFrame" name="resultFrame" title="Upload answer" hidden></iframe>
</section>
</main>
<script>
)page";

constexpr std::string_view pageClosing = R"page(</script>
</body>
</html>
)page";

} // namespace

std::string renderDemoPage(std::uint64_t largestBody) {
    std::string page;
    page.reserve(pageOpening.size() + 20 + pageHead.size() + demoPageStyle.size() +
                 pageBody.size() + demoPageScript.size() + pageClosing.size());
    page.append(pageOpening).append(std::to_string(largestBody)).append(pageHead);
    page.append(demoPageStyle).append(pageBody).append(demoPageScript).append(pageClosing);
    return page;
}

} // namespace kestrin::host
