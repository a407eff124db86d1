// Texts shared across the workspace: session kinds, statuses, common buttons.
#include "Ostrel/Localization.h"

namespace Ostrel {
namespace {

constexpr LocalizedText strings[] = {
    // key, English, French, German, Spanish, Portuguese
    {"kind.shell", "Shell", "Shell", "Shell", "Shell", "Shell"},
    {"kind.service", "Service", "Service", "Dienst", "Servicio", "Serviço"},
    {"status.ready", "Ready", "Prêt", "Bereit", "Listo", "Pronto"},
    {"status.working", "Working", "En cours", "Arbeitet", "Trabajando", "Trabalhando"},
    {"status.waiting", "Waiting", "En attente", "Wartet", "Esperando", "Aguardando"},
    {"status.idle", "Idle", "Inactif", "Untätig", "Inactivo", "Ocioso"},
    {"status.done", "Done", "Terminé", "Fertig", "Terminado", "Concluído"},
    {"status.failed", "Failed ({})", "Échec ({})", "Fehlgeschlagen ({})", "Falló ({})", "Falhou ({})"},
    {"common.cancel", "Cancel", "Annuler", "Abbrechen", "Cancelar", "Cancelar"},
    {"quit.alertTitle", "Quit with {} running sessions?", "Quitter avec {} sessions en cours ?",
     "Mit {} laufenden Sitzungen beenden?", "¿Salir con {} sesiones en curso?",
     "Sair com {} sessões em execução?"},
    {"quit.alertInfo", "Agent sessions are restored at the next launch.",
     "Les sessions d'agents seront rétablies au prochain lancement.",
     "Agentensitzungen werden beim nächsten Start wiederhergestellt.",
     "Las sesiones de agentes se restaurarán en el próximo inicio.",
     "As sessões de agentes serão restauradas na próxima abertura."},
    {"quit.confirm", "Quit", "Quitter", "Beenden", "Salir", "Sair"},
};

} // namespace

std::span<const LocalizedText> commonStrings() {
    return strings;
}

} // namespace Ostrel
