#include "fwimg/ImageCheck.h"

#include "fwimg/CheckedImage.h"

namespace tools {

CheckedImage::CheckedImage(const ImageView& checked, u_int32_t sector_size)
    : view(checked),
      sector(sector_size),
      family(view.DeviceFamily()),
      is_flash(sim::IsFlash(view.Image().DevType())),
      has_slots(view.HasSlots()) {
  for (const SectionView& section : view.Sections()) {
    if (section.is_kept) kept.push_back(&section);
  }
  for (const SectionView* section : kept) all.push_back({ExtentOf(*section), section});
  if (has_slots) {
    const auto sections = view.ImageSections();
    const u_int32_t base = sections.front()->addr;
    if (family == Family::POINTER_SECTORS) {
      const auto is_past = [&](const Region& region) { return region.from >= sector; };
      invariant.assign(all.begin(), std::ranges::find_if(all, is_past));
    }
    for (u_int32_t idx = 0; idx < FwImage::SLOTS; ++idx) {
      for (const SectionView* section : sections) {
        const u_int32_t to = view.Slots()[idx].image->addr + (section->addr - base);
        images[idx].push_back({{to, u_int64_t{to} + section->size}, section});
      }
      burnt[idx] = images[idx];
      if (family != Family::POINTER_SECTORS) continue;
      const SectionView* ps = view.SectionAt(view.Slots()[idx].ps->addr);
      if (ps != nullptr) burnt[idx].push_back({ExtentOf(*ps), ps});
    }
  }
  regions = all;
  for (const Sequence* sequence : Failsafe()) {
    regions.insert(regions.end(), sequence->begin(), sequence->end());
  }
  const auto key = [](const Region& region) { return std::pair(region.from, region.section); };
  std::ranges::sort(regions, {}, key);
  const auto is_same = [&](const Region& a, const Region& b) { return key(a) == key(b); };
  regions.erase(std::unique(regions.begin(), regions.end(), is_same), regions.end());
}

std::vector<const Sequence*> CheckedImage::Failsafe() const {
  if (!has_slots) return {};
  if (family == Family::BOOT_RECORDS) return {&burnt[0], &burnt[1]};
  return {&invariant, &burnt[0], &burnt[1]};
}

const SectionView* CheckedImage::SectionOver(u_int64_t addr) const {
  for (const SectionView* section : kept) {
    if (section->addr <= addr && addr < section->End()) return section;
  }
  return nullptr;
}

u_int32_t CheckedImage::WordAt(u_int64_t addr) const {
  const auto bytes = view.Bytes(addr, WORD_SIZE);
  if (!bytes) return 0;
  return u_int32_t{(*bytes)[0]} << 24 | u_int32_t{(*bytes)[1]} << 16 | u_int32_t{(*bytes)[2]} << 8 |
         (*bytes)[3];
}

std::vector<Problem> Check(const ImageView& view, u_int32_t sector_size,
                           std::optional<u_int32_t> flash_size) {
  LineFindings findings = view.Findings();
  const CheckedImage image(view, sector_size);
  CheckStructure(image, findings);
  CheckSlots(image, findings);
  CheckPlaces(image, findings);
  if (image.is_flash) CheckFlash(image, flash_size, findings);
  if (image.family == Family::BOOT_RECORDS) CheckBootRecord(image, findings);

  std::vector<Problem> problems;
  for (LineFinding& finding : findings.InOrder()) {
    const ProblemKind& kind = KindOf(finding.kind);
    problems.push_back({finding.line, &kind, std::move(finding.text), kind.BurnOf(image.family)});
  }
  // What no line is to blame for: the file's name, say. It is what fwpush sees first.
  const std::string refusal = Printable(view.Refusal());
  const bool is_told = std::ranges::any_of(problems, [&](const Problem& problem) {
    if (problem.kind->id != ProblemId::REFUSED) return false;
    return refusal == problem.text ||
           refusal == Text(Printable(view.Path()), ":", problem.line, ": ", problem.text);
  });
  if (!refusal.empty() && !is_told) {
    const ProblemKind& kind = KindOf(ProblemId::REFUSED);
    problems.insert(problems.begin(), {0, &kind, refusal, kind.BurnOf(image.family)});
  }
  return problems;
}

}  // namespace tools
